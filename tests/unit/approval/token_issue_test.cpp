// Issuing: what a token is made of, and who gets none.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "approval/token.h"
#include "support/digest_failure.h"
#include "unit/approval/approval_fixture.h"

namespace kova::testing {
namespace {

struct Pieces {
  std::string version, expiry, nonce, digest, signature;
};

class Issuing : public Approvals {
 protected:
  /// The token, or an empty text with the message in `message`.
  std::string issue(std::string_view digest = kDigest, std::uint64_t now = kNow) {
    TextOut(message).copy_cut(kUntouched);
    char token[kTokenCapacity] = {};
    if (!approval_issue(*policy, GuardedText(digest).view(), now, token, message)) return "";
    EXPECT_STREQ(message, kUntouched);
    return token;
  }
  void expect_none(std::string_view expected, std::string_view digest = kDigest) {
    EXPECT_EQ(issue(digest), "") << digest;
    EXPECT_EQ(std::string_view(message), expected) << digest;
  }
  static Pieces split(const std::string& token) {
    std::vector<std::string> pieces(1);
    for (const char c : token) {
      if (c == '.') {
        pieces.emplace_back();
      } else {
        pieces.back() += c;
      }
    }
    EXPECT_EQ(pieces.size(), 5U) << token;
    pieces.resize(5);
    return {.version = pieces[0],
            .expiry = pieces[1],
            .nonce = pieces[2],
            .digest = pieces[3],
            .signature = pieces[4]};
  }
};

TEST_F(Issuing, ATokenIsFiveFields) {
  const std::string token = issue();
  EXPECT_EQ(token.size(), 176U);
  const Pieces pieces = split(token);
  EXPECT_EQ(pieces.version, "v1");
  EXPECT_EQ(pieces.expiry, "1700000300");
  EXPECT_EQ(pieces.nonce.size(), 32U);
  EXPECT_EQ(pieces.nonce.find_first_not_of("0123456789abcdef"), std::string::npos) << pieces.nonce;
  EXPECT_EQ(pieces.digest, kDigest);
  EXPECT_EQ(pieces.signature,
            signature_of({.expiry = pieces.expiry, .nonce = pieces.nonce, .digest = kDigest}));
}

TEST_F(Issuing, AnIssuedTokenIsAccepted) {
  const std::string token = issue();
  // Issuing spends nothing.
  EXPECT_TRUE(markers().empty());
  expect_accepted(token);
}

TEST_F(Issuing, EveryTokenHasANonceOfItsOwn) {
  std::set<std::string> nonces;
  for (int i = 0; i < 100; ++i) nonces.insert(split(issue()).nonce);
  EXPECT_EQ(nonces.size(), 100U);
}

TEST_F(Issuing, TheExpiryIsTheTimePlusThePolicysLifetime) {
  struct Row {
    std::uint64_t now;
    std::uint32_t lifetime;
    const char* expiry;
  };
  for (const Row& row : {Row{0, 300, "300"}, Row{kNow, 30, "1700000030"},
                         Row{kNow, 900, "1700000900"}, Row{999999999, 30, "1000000029"},
                         // Beyond 32 bits nothing wraps.
                         Row{4294967295, 300, "4294967595"}, Row{4294967296, 30, "4294967326"},
                         Row{253402300799, 900, "253402301699"}}) {
    policy->approval_ttl_seconds = row.lifetime;
    const Pieces pieces = split(issue(kDigest, row.now));
    EXPECT_EQ(pieces.expiry, row.expiry);
    EXPECT_EQ(pieces.signature,
              signature_of({.expiry = row.expiry, .nonce = pieces.nonce, .digest = kDigest}));
  }
}

TEST_F(Issuing, TheDigestKeepsItsCase) {
  for (const std::string& digest : {upper(kDigest), "Ab" + kDigest.substr(2)}) {
    const Pieces pieces = split(issue(digest));
    EXPECT_EQ(pieces.digest, digest);
    EXPECT_EQ(pieces.signature,
              signature_of({.expiry = pieces.expiry, .nonce = pieces.nonce, .digest = digest}));
  }
}

TEST_F(Issuing, TheDigestIs64HexadecimalDigits) {
  for (const std::string& digest :
       {std::string(), std::string("a"), kDigest.substr(1), kDigest + "0", kDigest + kDigest,
        "g" + kDigest.substr(1), kDigest.substr(1) + "g", kDigest.substr(1) + " ",
        " " + kDigest.substr(1), kDigest.substr(1) + "\n", kDigest.substr(2) + "\xC3\xA9",
        "0x" + kDigest.substr(2), kDigest.substr(1) + ".", kDigest.substr(1) + std::string(1, '\0'),
        std::string(100000, 'a')})
    expect_none(kBadRequest, digest);
  EXPECT_NE(issue(std::string(64, '0')), "");
  EXPECT_NE(issue(std::string(64, 'F')), "");
}

TEST_F(Issuing, ThePolicyMustAskForApprovals) {
  const auto expect_none_without = [this](bool& flag) {
    flag = false;
    expect_none(kBadRequest);
    flag = true;
    EXPECT_NE(issue(), "");
  };
  expect_none_without(policy->valid);
  expect_none_without(policy->configured);
  expect_none_without(policy->approval_required);
  expect_none_without(policy->writes_enabled);
  policy->write_type_mask = 0;
  expect_none(kBadRequest);
  policy->write_type_mask = kDelete;
  EXPECT_NE(issue(), "");
  policy->write_tables.count = 0;
  expect_none(kBadRequest);
  policy = no_policy();
  expect_none(kBadRequest);
}

TEST_F(Issuing, TheKillSwitchStopsIt) {
  for (const char* value : {"1", "TRUE", "Yes", "on"}) {
    writes_switch.set(value);
    expect_none(kBadRequest);
  }
  for (const char* value : {"01", "true ", "enable", "0", ""}) {
    writes_switch.set(value);
    EXPECT_NE(issue(), "") << value;
  }
}

// Reading is no business of an approval.
TEST_F(Issuing, WorksWithReadsOff) {
  policy->reads_enabled = false;
  policy->provider_reads_enabled = false;
  EXPECT_NE(issue(), "");
}

TEST_F(Issuing, NeedsASecretOf32Bytes) {
  secret_variable.unset();
  expect_none(kCannotSign);
  secret_variable.set(std::string(31, 's'));
  expect_none(kCannotSign);
  secret_variable.set(std::string(32, 's'));
  EXPECT_NE(issue(), "");
}

TEST_F(Issuing, AFailedDigestGivesNoToken) {
  const DigestFailure failing;
  expect_none(kCannotSign);
}

// Policy and digest are looked at before the secret.
TEST_F(Issuing, TheChecksStandInOrder) {
  secret_variable.unset();
  expect_none(kBadRequest, kDigest.substr(1));
  policy->approval_required = false;
  expect_none(kBadRequest);
  policy->approval_required = true;
  expect_none(kCannotSign);
}

// The state directory is needed only to spend a token.
TEST_F(Issuing, NeedsNoStateDirectory) {
  TextOut(policy->approval_state_directory).copy_cut(folder.file("gone"));
  EXPECT_NE(issue(), "");
}

TEST_F(Issuing, ATokenThatDoesNotFitLeavesNoMessage) {
  for (std::size_t capacity = 1; capacity <= 180; ++capacity) {
    const GuardedBuffer buffer(capacity);
    std::memset(buffer.data(), 'x', capacity);
    TextOut(message).copy_cut(kUntouched);
    TextOut token(buffer.data(), capacity);
    ASSERT_EQ(approval_issue(*policy, kDigest, kNow, token, message), capacity >= 177) << capacity;
    ASSERT_STREQ(message, kUntouched);
    if (capacity >= 177) {
      ASSERT_EQ(std::strlen(buffer.data()), 176U);
    }
  }
}

// A refusal comes before the question whether the token would fit.
TEST_F(Issuing, ARefusalHasItsWordsWhateverTheRoom) {
  char token[1];
  EXPECT_FALSE(approval_issue(*policy, "x", kNow, token, message));
  EXPECT_EQ(std::string_view(message), kBadRequest);
  secret_variable.unset();
  EXPECT_FALSE(approval_issue(*policy, kDigest, kNow, token, message));
  EXPECT_EQ(std::string_view(message), kCannotSign);
}

TEST_F(Issuing, TheLongestPolicyGetsATokenOfTheSameLength) {
  TextOut(policy->name).copy_cut(std::string(63, 'n'));
  TextOut(policy->client_id).copy_cut(std::string(95, 'c'));
  TextOut(policy->database).copy_cut(std::string(63, 'd'));
  const std::string token = issue();
  EXPECT_EQ(token.size(), 176U);
  expect_accepted(token);
}

}  // namespace
}  // namespace kova::testing
