// The standard library's assertions are on, and end in this program's own function.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string_view>

namespace kova {
namespace {

TEST(FailedAssertionDeathTest, AnIndexBeyondAViewEndsTheProgram) {
  const std::string_view text = "abc";
  const volatile std::size_t beyond = 3;
  EXPECT_DEATH(std::exit(text[beyond]), "");
}

TEST(FailedAssertionDeathTest, AValueThatIsNotThereEndsTheProgram) {
  const std::optional<int> nothing;
  EXPECT_DEATH(std::exit(*nothing), "");
}

}  // namespace
}  // namespace kova
