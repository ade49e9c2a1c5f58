#include "http/rate_window.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

namespace kova {
namespace {

constexpr std::uint64_t kStart = 1000;

TEST(RateWindow, AdmitsTheLimitAndNoMore) {
  RateWindow window;
  for (int i = 0; i < 120; ++i) EXPECT_TRUE(window.admit(kStart, 120));
  EXPECT_FALSE(window.admit(kStart, 120));
  EXPECT_FALSE(window.admit(kStart + 59999, 120));
}

TEST(RateWindow, ANewOneBeginsAfterSixtySeconds) {
  RateWindow window;
  EXPECT_TRUE(window.admit(kStart, 1));
  EXPECT_FALSE(window.admit(kStart + 59999, 1));
  EXPECT_TRUE(window.admit(kStart + 60000, 1));
  EXPECT_FALSE(window.admit(kStart + 60001, 1));
}

// It is fixed: what fell into its end does not burden the next one, and what came in between does
// not move it.
TEST(RateWindow, IsFixedAndDoesNotSlide) {
  RateWindow window;
  EXPECT_TRUE(window.admit(kStart, 2));
  EXPECT_TRUE(window.admit(kStart + 59000, 2));
  EXPECT_TRUE(window.admit(kStart + 60000, 2));
  EXPECT_TRUE(window.admit(kStart + 60000, 2));
  EXPECT_FALSE(window.admit(kStart + 119999, 2));
  EXPECT_TRUE(window.admit(kStart + 120000, 2));
}

TEST(RateWindow, RefusedRequestsCount) {
  RateWindow window;
  EXPECT_TRUE(window.admit(kStart, 1));
  EXPECT_FALSE(window.admit(kStart, 1));
  EXPECT_FALSE(window.admit(kStart, 2));
  EXPECT_TRUE(window.admit(kStart, 4));
}

TEST(RateWindow, TheFirstRequestMayComeAtZero) {
  RateWindow window;
  EXPECT_TRUE(window.admit(0, 1));
  EXPECT_FALSE(window.admit(0, 1));
}

TEST(RateWindow, AThreadThatReadTheClockEarlierIsInTheWindow) {
  RateWindow window;
  EXPECT_TRUE(window.admit(kStart, 1));
  EXPECT_FALSE(window.admit(kStart - 1, 1));
}

TEST(RateWindow, CountsEveryThread) {
  RateWindow window;
  std::atomic<int> admitted{0};
  std::array<std::thread, 4> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 1000; ++i) admitted += window.admit(kStart, 2500) ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(admitted, 2500);
}

}  // namespace
}  // namespace kova
