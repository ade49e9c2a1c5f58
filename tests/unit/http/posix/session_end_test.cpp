// The end of a session whose process does not end.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdint>
#include <memory>

#include "http/child_starter.h"
#include "http/session_process.h"
#include "platform/console.h"
#include "support/child_modes.h"
#include "support/posix/slow_end.h"

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
  session->terminate();
  {
    const SlowEnd slow(1000);
    session->finish();
    EXPECT_GE(SlowEnd::waited_ms(), kGraceMs);
    EXPECT_LE(SlowEnd::waited_ms(), kGraceMs + 1000);
  }
  EXPECT_FALSE(session->has_ended());
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

}  // namespace
}  // namespace kova
