#include "platform/user.h"

#include <gtest/gtest.h>

#include <cstring>

namespace kova {
namespace {

TEST(User, HasANameThatFitsOrNone) {
  char name[1024] = {};
  ASSERT_TRUE(real_user_name(name));
  EXPECT_NE(name[0], '\0');
  char tight[1024];
  ASSERT_TRUE(real_user_name(TextOut(tight, std::strlen(name) + 1)));
  EXPECT_STREQ(tight, name);
  EXPECT_FALSE(real_user_name(TextOut(tight, std::strlen(name))));
}

TEST(Host, HasANameThatFitsOrNone) {
  char name[1024] = {};
  ASSERT_TRUE(host_name(name));
  EXPECT_NE(name[0], '\0');
  char tight[1024];
  ASSERT_TRUE(host_name(TextOut(tight, std::strlen(name) + 1)));
  EXPECT_FALSE(host_name(TextOut(tight, std::strlen(name))));
}

}  // namespace
}  // namespace kova
