#include "platform/environment.h"

#include <gtest/gtest.h>

#include <string>

#include "support/environment.h"

namespace kova {
namespace {

using testing::ScopedEnvironment;

constexpr char kTestVariable[] = "KOVA_TEST_ENVIRONMENT";

TEST(EnvironmentValue, Unset) {
  const ScopedEnvironment none(kTestVariable);
  const EnvironmentValue value(kTestVariable);
  EXPECT_FALSE(value.is_set());
  EXPECT_STREQ(value.c_str(), "");
  EXPECT_EQ(value.view(), "");
}

TEST(EnvironmentValue, ValuesInUtf8) {
  for (const std::string& text :
       {std::string(""), std::string("1"), std::string(" with blanks "), std::string("a=b;c"),
        std::string("\xc3\xa9\xe2\x82\xac"), std::string("\xf0\x9f\x98\x80 smile"),
        std::string("line\nfeed"), std::string(259, 'x'), std::string(30000, 'y')}) {
    SCOPED_TRACE(text.substr(0, 40));
    const ScopedEnvironment set(kTestVariable, text);
    const EnvironmentValue value(kTestVariable);
    EXPECT_TRUE(value.is_set());
    EXPECT_EQ(value.view(), text);
    EXPECT_EQ(std::string(value.c_str()), text);
  }
}

TEST(EnvironmentValue, ValuesOfEveryLengthAroundABuffer) {
  // One, two and three bytes to a character: lengths in bytes and in UTF-16 units differ.
  for (const std::string_view character : {"x", "\xc3\xa9", "\xe2\x82\xac"}) {
    for (std::size_t count = 165; count <= 520; ++count) {
      std::string text;
      for (std::size_t i = 0; i < count; ++i) text += character;
      const ScopedEnvironment set(kTestVariable, text);
      const EnvironmentValue value(kTestVariable);
      ASSERT_TRUE(value.is_set());
      ASSERT_EQ(value.view(), text) << count << " of " << character;
    }
  }
}

TEST(EnvironmentValue, IsReadAtConstruction) {
  ScopedEnvironment variable(kTestVariable, "first");
  EXPECT_EQ(EnvironmentValue(kTestVariable).view(), "first");
  variable.set("second");
  EXPECT_EQ(EnvironmentValue(kTestVariable).view(), "second");
  variable.unset();
  EXPECT_FALSE(EnvironmentValue(kTestVariable).is_set());
}

}  // namespace
}  // namespace kova
