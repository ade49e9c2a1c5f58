#include "platform/own_path.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/file.h"
#include "support/guard_page.h"

namespace kova {
namespace {

TEST(OwnPath, NamesThisProgram) {
  char path[1024];
  ASSERT_TRUE(own_path(path));
  EXPECT_TRUE(is_canonical_path(path)) << path;
  InputFile file;
  EXPECT_TRUE(file.open(path)) << path;
  EXPECT_GT(file.size(), 0U);
}

TEST(OwnPath, MustFit) {
  char path[1024];
  ASSERT_TRUE(own_path(path));
  const std::string whole(path);
  const testing::GuardedBuffer exact(whole.size() + 1);
  ASSERT_TRUE(own_path(TextOut(exact.data(), exact.size())));
  EXPECT_EQ(std::string(exact.data()), whole);
  const testing::GuardedBuffer small(whole.size());
  EXPECT_FALSE(own_path(TextOut(small.data(), small.size())));
}

}  // namespace
}  // namespace kova
