#include "platform/environment_change.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/environment.h"
#include "support/environment.h"

namespace kova {
namespace {

constexpr char kName[] = "KOVA_TEST_CHANGE";

std::vector<std::string> names() {
  std::vector<std::string> found;
  visit_environment_names(
      [](void* context, std::string_view name) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(name);
      },
      &found);
  return found;
}

std::ptrdiff_t count_of_name() {
  const std::vector<std::string> all = names();
  return std::count(all.begin(), all.end(), kName);
}

TEST(EnvironmentChange, SetReplacedAndCleared) {
  const testing::ScopedEnvironment restored(kName);
  EXPECT_EQ(count_of_name(), 0);
  ASSERT_TRUE(set_environment_variable(kName, "one"));
  EXPECT_EQ(EnvironmentValue(kName).view(), "one");
  EXPECT_EQ(count_of_name(), 1);
  ASSERT_TRUE(set_environment_variable(kName, "gr\xC3\xBC\xC3\x9F =x"));
  EXPECT_EQ(EnvironmentValue(kName).view(), "gr\xC3\xBC\xC3\x9F =x");
  EXPECT_EQ(count_of_name(), 1);
  clear_environment_variable(kName);
  EXPECT_FALSE(EnvironmentValue(kName).is_set());
  EXPECT_EQ(count_of_name(), 0);
  clear_environment_variable(kName);
}

TEST(EnvironmentChange, ANameThatIsNoneIsRefused) {
  EXPECT_FALSE(set_environment_variable("", "x"));
  EXPECT_FALSE(set_environment_variable("A=B", "x"));
}

TEST(EnvironmentChange, ALongValueIsWhole) {
  const testing::ScopedEnvironment restored(kName);
  const std::string value(20000, 'v');
  ASSERT_TRUE(set_environment_variable(kName, value.c_str()));
  EXPECT_TRUE(EnvironmentValue(kName).view() == value);
}

}  // namespace
}  // namespace kova
