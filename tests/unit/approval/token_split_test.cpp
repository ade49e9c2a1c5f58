// Cutting a token into its pieces.
#include <gtest/gtest.h>

#include "approval/token.h"

namespace kova::testing {
namespace {

TEST(ApprovalSplit, FivePieces) {
  for (const char* const token : {"a.b.c.d.e", "..a..b.c...d.e..", ".a.b.c.d.e"}) {
    TokenPieces pieces;
    ASSERT_TRUE(approval_split(token, pieces)) << token;
    EXPECT_EQ(pieces.version, "a");
    EXPECT_EQ(pieces.expiry, "b");
    EXPECT_EQ(pieces.nonce, "c");
    EXPECT_EQ(pieces.digest, "d");
    EXPECT_EQ(pieces.signature, "e");
  }
}

TEST(ApprovalSplit, NeitherMoreNorFewer) {
  for (const char* const token : {"", ".", "a", "a.b.c.d", "a.b.c.d.", ".a.b.c.d", "a..b.c.d",
                                  "a.b.c.d.e.f", "a.b.c.d.e..f", "a.b.c.d.e.f.g"}) {
    TokenPieces pieces;
    EXPECT_FALSE(approval_split(token, pieces)) << token;
  }
}

}  // namespace
}  // namespace kova::testing
