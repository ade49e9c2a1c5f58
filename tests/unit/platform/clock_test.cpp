#include "platform/clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace kova {
namespace {

TEST(Clock, TheTickCountNeverGoesBackAndCountsMilliseconds) {
  const std::uint64_t start = tick_ms();
  std::uint64_t before = start;
  for (int i = 0; i < 10000; ++i) {
    const std::uint64_t now = tick_ms();
    ASSERT_GE(now, before);
    before = now;
  }
  const auto wall_start = std::chrono::steady_clock::now();
  const std::uint64_t tick_start = tick_ms();
  std::this_thread::sleep_for(std::chrono::milliseconds(120));
  const std::uint64_t ticks = tick_ms() - tick_start;
  const auto wall = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - wall_start)
                        .count();
  // One tick of a coarse clock (16 ms) may be missing at either end.
  EXPECT_GE(ticks + 20, 120U);
  EXPECT_LE(ticks, static_cast<std::uint64_t>(wall) + 20);
}

TEST(Clock, UtcIsTheSystemsCalendarTime) {
  using namespace std::chrono;
  const auto before = floor<milliseconds>(system_clock::now());
  const UtcTime now = utc_now();
  const auto after = system_clock::now();
  ASSERT_TRUE(now.month >= 1 && now.month <= 12);
  ASSERT_TRUE(now.day >= 1 && now.day <= 31);
  EXPECT_LT(now.hour, 24U);
  EXPECT_LT(now.minute, 60U);
  EXPECT_LE(now.second, 60U);
  EXPECT_LT(now.millisecond, 1000U);
  const sys_days date = year(static_cast<int>(now.year)) / month(now.month) / day(now.day);
  const auto seen = date + hours(now.hour) + minutes(now.minute) + seconds(now.second) +
                    milliseconds(now.millisecond);
  // A system clock that moves in coarse steps may lag by one.
  EXPECT_GE(seen, before - milliseconds(20));
  EXPECT_LE(seen, after + milliseconds(20));
}

TEST(Clock, UnixSecondsAreTheSystemsTime) {
  using namespace std::chrono;
  const auto now = [] {
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
  };
  const auto before = now();
  const auto seen = static_cast<std::int64_t>(unix_seconds());
  const auto after = now();
  // A system clock that moves in coarse steps may lag by one.
  EXPECT_GE(seen, before - 1);
  EXPECT_LE(seen, after + 1);
}

}  // namespace
}  // namespace kova
