// The end of a session whose process does not end.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "http/child_starter.h"
#include "http/session_process.h"
#include "platform/console.h"
#include "support/child_modes.h"
#include "support/child_watch.h"
#include "support/slow_end.h"

namespace kova {
namespace {

using testing::SlowEnd;

constexpr std::uint64_t kGraceMs = 2000;

// It is given 2,000 ms and then left to the system: the place in the table is free again.
TEST(SessionEnd, AProcessThatDoesNotEndIsWaitedForTwoSecondsAndLeft) {
  prepare_standard_streams();
  // Its thread runs until the process ends.
  static ChildStarter starter(testing::kChildHang);
  ASSERT_TRUE(starter.run());
  const auto session = std::make_unique<SessionProcess>();
  ASSERT_TRUE(session->start(starter));
  const int started = testing::uncollected_children();
  session->terminate();
  {
    const SlowEnd slow;
    session->finish();
    EXPECT_GE(SlowEnd::waited_ms(), kGraceMs);
    EXPECT_LE(SlowEnd::waited_ms(), kGraceMs + 1000);
  }
  EXPECT_FALSE(session->has_ended());
  EXPECT_EQ(testing::uncollected_children(), started);
}

}  // namespace
}  // namespace kova
