// What holds for every write.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "support/reference_digest.h"
#include "unit/policy/classified.h"
#include "unit/policy/write_generator.h"

namespace kova::testing {
namespace {

constexpr int kStatements = 2000;

class WriteProperties : public WriteClassifier, public WriteGenerator {};

TEST_F(WriteProperties, NormalisingTwiceChangesNothing) {
  for (int i = 0; i < kStatements; ++i) {
    const std::string sql = joined(statement());
    ASSERT_TRUE(classify(sql)) << sql << message;
    const std::string canonical = write->canonical;
    const std::string digest = write->digest;
    ASSERT_TRUE(classify(canonical)) << canonical << message;
    ASSERT_EQ(write->canonical, canonical);
    ASSERT_EQ(write->digest, digest);
  }
}

TEST_F(WriteProperties, TheDigestIsTheCanonicalTexts) {
  for (int i = 0; i < kStatements; ++i) {
    const std::string sql = joined(statement());
    ASSERT_TRUE(classify(sql)) << sql << message;
    const std::string canonical = write->canonical;
    ASSERT_TRUE(canonical.ends_with(';'));
    ASSERT_EQ(write->digest, to_hex(reference_sha256(canonical)));
  }
}

TEST_F(WriteProperties, SpacingAndCaseOutsideLiteralsDoNotCount) {
  for (int i = 0; i < kStatements; ++i) {
    const Pieces pieces = statement();
    ASSERT_TRUE(classify(joined(pieces))) << joined(pieces) << message;
    const std::string canonical = write->canonical;
    const std::string digest = write->digest;
    const std::string other = respelled(pieces);
    ASSERT_TRUE(classify(other)) << other << message;
    ASSERT_EQ(write->canonical, canonical) << other;
    ASSERT_EQ(write->digest, digest) << other;
  }
}

TEST_F(WriteProperties, AnyChangeInALiteralCounts) {
  int changed = 0;
  for (int i = 0; i < kStatements; ++i) {
    Pieces pieces = statement();
    const std::string sql = joined(pieces);
    ASSERT_TRUE(classify(sql)) << sql << message;
    const std::string digest = write->digest;
    if (!change_a_literal(pieces)) continue;
    ++changed;
    ASSERT_TRUE(classify(joined(pieces))) << joined(pieces) << message;
    ASSERT_NE(write->digest, digest) << sql << " | " << joined(pieces);
  }
  EXPECT_GT(changed, kStatements / 4);
}

// Literals come through byte for byte and in their order.
TEST_F(WriteProperties, LiteralsAreKept) {
  for (int i = 0; i < kStatements; ++i) {
    const Pieces pieces = statement();
    ASSERT_TRUE(classify(joined(pieces)));
    const std::string canonical = write->canonical;
    std::size_t from = 0;
    for (const Piece& piece : pieces) {
      if (piece.kind != Piece::kLiteral) continue;
      const std::size_t found = canonical.find(piece.bytes, from);
      ASSERT_NE(found, std::string::npos) << canonical << " | " << piece.bytes;
      from = found + piece.bytes.size();
    }
  }
}

// Random bytes: the same verdict twice, and never a canonical text that is not its own canonical
// form.
TEST_F(WriteProperties, AnyBytesGetOneVerdict) {
  static constexpr const char* kParts[] = {
      "'",      "''",   ";", "--",   "/*", "#",    " ", "\n", "update", "t", "insert", "into",
      "delete", "from", "(", "drop", "\"", "\x80", "9", "_",  "-",      "/", "*"};
  int accepted = 0;
  for (int i = 0; i < 20 * kStatements; ++i) {
    std::string sql = below(2) == 0 ? "update t " : "";
    for (std::size_t length = below(12); length > 0; --length) sql += one_of(kParts);
    const bool first = classify(sql);
    const std::string refusal = message;
    ASSERT_EQ(refusal == kNoMessage, first) << sql;
    ASSERT_EQ(classify(sql, GuardSide::kBefore), first) << sql;
    ASSERT_EQ(std::string_view(message), refusal) << sql;
    if (!first) continue;
    ++accepted;
    const std::string canonical = write->canonical;
    ASSERT_TRUE(classify(canonical)) << canonical;
    ASSERT_EQ(write->canonical, canonical);
  }
  EXPECT_GT(accepted, kStatements);
}

}  // namespace
}  // namespace kova::testing
