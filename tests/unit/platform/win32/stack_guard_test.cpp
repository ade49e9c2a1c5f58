#include <gtest/gtest.h>

#include <cstdint>

extern "C" {
extern std::uintptr_t __stack_chk_guard;
[[noreturn]] void __stack_chk_fail();
}

namespace {

TEST(StackGuard, IsDrawnAndNoTextHoldsIt) {
  EXPECT_NE(__stack_chk_guard, 0U);
  EXPECT_EQ(__stack_chk_guard & 0xFFU, 0U);
}

TEST(StackGuardDeathTest, AnOverrunEndsTheProgram) {
  const auto overrun = [](int code) { return static_cast<unsigned>(code) == 0xC0000409U; };
  EXPECT_EXIT(__stack_chk_fail(), overrun, "");
}

}  // namespace
