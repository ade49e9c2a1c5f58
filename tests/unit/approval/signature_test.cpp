// The approval signature, held against a computation of its own.
#include "approval/signature.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/digest_failure.h"
#include "unit/approval/approval_fixture.h"

namespace kova::testing {
namespace {

class Signature : public Approvals {
 protected:
  /// The signature, or "refused".
  std::string sign(const Draft& draft) {
    char signature[kSignatureCapacity];
    std::memset(signature, 'x', sizeof signature);
    if (!approval_sign(*policy, GuardedText(draft.expiry).view(), GuardedText(draft.nonce).view(),
                       GuardedText(draft.digest).view(), signature)) {
      return "refused";
    }
    EXPECT_EQ(signature[kSignatureCapacity - 1], '\0');
    return signature;
  }
};

TEST_F(Signature, IsTheKeyedDigestOfTheSigningText) {
  EXPECT_EQ(sign({.expiry = "1700000300"}),
            to_hex(reference_hmac(kSecret, "v1|1700000300|" + kNonce + "|" + kDigest +
                                               "|Demo_1|desk-7.client_A|SHOP")));
  EXPECT_EQ(sign({.expiry = "", .nonce = "", .digest = ""}),
            to_hex(reference_hmac(kSecret, "v1||||Demo_1|desk-7.client_A|SHOP")));
}

TEST_F(Signature, NeedsASecretOf32Bytes) {
  struct Row {
    std::string secret;
    bool accepted;
  };
  const std::string accents = "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9";  // ten bytes
  const Row rows[] = {
      {std::string(1, 's'), false},
      {std::string(31, 's'), false},
      {std::string(32, 's'), true},
      {std::string(32, ' '), true},
      // Bytes are counted, not letters.
      {accents + accents + accents + "s", false},
      {accents + accents + accents + "ss", true},
      {accents + accents + accents + "\xC3\xA9", true},
  };
  for (const Row& row : rows) {
    secret_variable.set(row.secret);
    EXPECT_EQ(sign({}), row.accepted ? signature_of({}, row.secret) : "refused") << row.secret;
  }
  secret_variable.unset();
  EXPECT_EQ(sign({}), "refused");
}

TEST_F(Signature, AFailedDigestIsARefusal) {
  const DigestFailure failing;
  EXPECT_EQ(sign({}), "refused");
}

// The key is the whole value as it stands: no trimming, no decoding, no upper limit.
TEST_F(Signature, UsesTheWholeSecret) {
  const std::string digits = "0123456789abcdef";
  for (const std::string& secret :
       {std::string(33, 'k'), std::string(64, 'k'), std::string(65, 'k'), std::string(200, 'k'),
        std::string(511, 'k'), std::string(512, 'k'), std::string(513, 'k'), std::string(5000, 'k'),
        " " + std::string(40, 'k') + " ", std::string(40, 'k') + "\n", "\t" + std::string(40, 'k'),
        "\"" + std::string(40, 'k') + "\"", digits + digits + digits + digits,
        std::string(40, 'k') + "\xE2\x82\xAC%PATH%$HOME\\"}) {
    secret_variable.set(secret);
    EXPECT_EQ(sign({}), signature_of({}, secret)) << secret;
  }
}

TEST_F(Signature, ReadsTheSecretAtEachUse) {
  const std::string first = sign({});
  const std::string other(40, 'o');
  secret_variable.set(other);
  EXPECT_EQ(sign({}), signature_of({}, other));
  EXPECT_NE(sign({}), first);
  secret_variable.set(kSecret);
  EXPECT_EQ(sign({}), first);
}

TEST_F(Signature, DependsOnTheCaseOfAllSixFields) {
  TextOut(policy->name).copy_cut("abc");
  TextOut(policy->client_id).copy_cut("abc");
  TextOut(policy->database).copy_cut("abc");
  const Draft lower = {.expiry = "abc", .nonce = "abc", .digest = "abc"};
  const std::string reference = sign(lower);
  EXPECT_EQ(reference, signature_of(lower));
  EXPECT_NE(sign({.expiry = "Abc", .nonce = "abc", .digest = "abc"}), reference);
  EXPECT_NE(sign({.expiry = "abc", .nonce = "aBc", .digest = "abc"}), reference);
  EXPECT_NE(sign({.expiry = "abc", .nonce = "abc", .digest = "abC"}), reference);
  for (char* field : {policy->name, policy->client_id, policy->database}) {
    field[1] = 'B';
    EXPECT_EQ(sign(lower), signature_of(lower));
    EXPECT_NE(sign(lower), reference);
    field[1] = 'b';
  }
  EXPECT_EQ(sign(lower), reference);
}

// The environment's spelling of the identity does not enter.
TEST_F(Signature, SpellsTheIdentityAsThePolicyDoes) {
  const std::string reference = sign({});
  const ScopedEnvironment client("KOVA_MCP_CLIENT_ID", "DESK-7.CLIENT_a");
  const ScopedEnvironment database("KOVA_MCP_DATABASE", "shop");
  EXPECT_EQ(sign({}), reference);
}

TEST_F(Signature, SignsTextsOfUpTo511Bytes) {
  Draft draft;
  const std::size_t others = std::string("v1||||Demo_1|desk-7.client_A|SHOP").size() +
                             draft.nonce.size() + draft.digest.size();
  draft.expiry = std::string(511 - others, '9');
  EXPECT_EQ(sign(draft), signature_of(draft));
  draft.expiry += '9';
  EXPECT_EQ(sign(draft), "refused");
  draft.expiry = std::string(100000, '9');
  EXPECT_EQ(sign(draft), "refused");
}

TEST_F(Signature, TheLongestIdentityFits) {
  TextOut(policy->name).copy_cut(std::string(63, 'n'));
  TextOut(policy->client_id).copy_cut(std::string(95, 'c'));
  TextOut(policy->database).copy_cut(std::string(63, 'd'));
  EXPECT_EQ(sign({}), signature_of({}));
}

}  // namespace
}  // namespace kova::testing
