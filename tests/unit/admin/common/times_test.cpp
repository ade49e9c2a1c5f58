// Times as the audit log writes them.
#include "admin/common/times.h"

#include <gtest/gtest.h>
#include <optional>

namespace kova::admin {
namespace {

TEST(Times, AreWrittenAndRead) {
  EXPECT_EQ(time_text(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(time_text(1709210096789), "2024-02-29T12:34:56.789Z");
  for (const UnixMs time : {UnixMs{0}, UnixMs{1709210096789}, UnixMs{253402300799999}}) {
    EXPECT_EQ(parse_time(time_text(time)), time);
  }
}

TEST(Times, OfAnotherFormAreNone) {
  for (const char* text :
       {"", "2024-02-29T12:34:56Z", "2024-02-29 12:34:56.789Z", "2024-02-29T12:34:56.789",
        "2023-02-29T12:34:56.789Z", "2024-13-01T12:34:56.789Z", "2024-02-29T24:00:00.000Z",
        "2024-02-29T12:60:56.789Z", "2024-02-29T12:34:60.789Z", "2024-02-29T12:34:56.789Zx",
        "x024-02-29T12:34:56.789Z"}) {
    EXPECT_EQ(parse_time(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace kova::admin
