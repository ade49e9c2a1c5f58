// Text that is overwritten when it is no longer needed.
#include "admin/common/secret_text.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string_view>
#include <utility>

namespace kova::admin {
namespace {

TEST(SecretText, WhatIsCutOffIsWiped) {
  SecretText text(std::string_view("secret"));
  char* const data = text.data();
  text.cut(2);
  EXPECT_EQ(text.view(), "se");
  EXPECT_EQ((std::string_view{data, 6}), (std::string_view{"se\0\0\0\0", 6}));
  text.cut(5);
  EXPECT_EQ(text.view(), "se");
}

TEST(SecretText, MovesWithoutACopy) {
  SecretText first(std::string_view("secret"));
  const char* const data = first.c_str();
  const SecretText second = std::move(first);
  EXPECT_EQ(second.c_str(), data);
  EXPECT_EQ(second.view(), "secret");
}

TEST(SecretText, TakesNoMoreThanItsCapacity) {
  SecretText text(std::size_t{2});
  text.cut(0);
  text.add('a');
  text.add('b');
  EXPECT_EQ(text.view(), "ab");
  EXPECT_THROW(text.add('c'), std::length_error);
}

}  // namespace
}  // namespace kova::admin
