#include "mcp/request_ids.h"

#include <gtest/gtest.h>

#include <string>

namespace kova {
namespace {

TEST(RequestIds, AnIdIsTakenOnce) {
  RequestIdRegistry registry;
  EXPECT_EQ(registry.count(), 0U);
  for (const std::string& id :
       {std::string("a"), std::string("A"), std::string(""), std::string("1"), std::string("1.0"),
        std::string(95, 'x'), std::string(94, 'x'), std::string(94, 'x') + "y"}) {
    SCOPED_TRACE(id);
    const std::uint32_t before = registry.count();
    EXPECT_TRUE(registry.add(id));
    EXPECT_EQ(registry.count(), before + 1);
    EXPECT_FALSE(registry.add(id));
    EXPECT_EQ(registry.count(), before + 1);
  }
}

TEST(RequestIds, OnlyEqualTextsAreEqual) {
  RequestIdRegistry registry;
  EXPECT_TRUE(registry.add("abc"));
  EXPECT_TRUE(registry.add("ab"));
  EXPECT_TRUE(registry.add("abcd"));
  EXPECT_TRUE(registry.add("bc"));
  EXPECT_TRUE(registry.add("\xc3\xa9"));
  EXPECT_FALSE(registry.add("ab"));
  EXPECT_FALSE(registry.add("\xc3\xa9"));
}

TEST(RequestIds, TheTwoHundredAndFiftySeventhIsRefused) {
  RequestIdRegistry registry;
  for (std::uint32_t i = 0; i < RequestIdRegistry::kCapacity; ++i) {
    ASSERT_TRUE(registry.add("id-" + std::to_string(i))) << i;
  }
  EXPECT_EQ(registry.count(), 256U);
  EXPECT_FALSE(registry.add("id-256"));
  EXPECT_FALSE(registry.add("id-0"));
  EXPECT_FALSE(registry.add("id-255"));
  EXPECT_FALSE(registry.add(""));
  EXPECT_EQ(registry.count(), 256U);
}

}  // namespace
}  // namespace kova
