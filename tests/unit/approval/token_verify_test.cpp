// Verifying: one row per refusal, in the order of the checks, and the leniencies by name.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "approval/token.h"
#include "support/digest_failure.h"
#include "unit/approval/approval_fixture.h"

namespace kova::testing {
namespace {

using Verifying = Approvals;

TEST_F(Verifying, ATokenIsAcceptedOnce) {
  const std::string token = token_of();
  expect_accepted(token);
  EXPECT_EQ(markers(), std::vector<std::string>{kNonce + ".used"});
  EXPECT_EQ(read_file(folder.file(kNonce + ".used")), "");
  expect_refused(token, kUsed);
  expect_refused(token, kUsed);
  EXPECT_EQ(markers().size(), 1U);
}

TEST_F(Verifying, ANonceIsSpentForEveryToken) {
  expect_accepted(token_of());
  expect_refused(token_of({.expiry = "1700000299"}), kUsed);
  const std::string other(64, 'a');
  expect_refused(token_of({.digest = other}), kUsed, other);
  expect_accepted(token_of({.nonce = std::string(32, '0')}));
}

// Whether an approval is needed at all is the caller's question.
TEST_F(Verifying, ThePolicysFlagsAreNotAsked) {
  policy->valid = false;
  policy->configured = false;
  policy->approval_required = false;
  policy->writes_enabled = false;
  policy->write_type_mask = 0;
  policy->write_tables.count = 0;
  writes_switch.set("1");
  expect_accepted(token_of());
}

TEST_F(Verifying, ATokenHasUpTo255Bytes) {
  const std::string token = token_of();
  const auto padded = [&](std::size_t size) {
    return token + std::string(size - token.size(), '.');
  };
  expect_refused(padded(256), kTokenInvalid);
  expect_refused(padded(257), kTokenInvalid);
  expect_refused(std::string(256, 'x'), kTokenInvalid);
  expect_refused(std::string(100000, '.'), kTokenInvalid);
  expect_refused(std::string(255, 'x'), kFieldsInvalid);
  EXPECT_TRUE(markers().empty());
  expect_accepted(padded(255));
}

TEST_F(Verifying, TheExpectedDigestIs64HexadecimalDigits) {
  const std::string token = token_of();
  for (const std::string& digest :
       {std::string(), kDigest.substr(1), kDigest + "0", "g" + kDigest.substr(1),
        kDigest.substr(1) + "g", kDigest.substr(1) + " ", kDigest.substr(1) + "."}) {
    expect_refused(token, kTokenInvalid, digest);
    // Even when the token says the same.
    expect_refused(token_of({.digest = digest}), kTokenInvalid, digest);
  }
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, ThereAreFivePieces) {
  const std::string four = "v1." + std::to_string(kNow + kTtl) + "." + kNonce + "." + kDigest;
  for (const std::string& token :
       {std::string(), std::string("."), std::string(200, '.'), std::string("v1"),
        std::string("v1."), std::string("v1.1.2.3.4"), four, four + ".", token_of() + ".x",
        "x." + token_of(), token_of() + ".v1", token_of() + "..x..", "v1." + token_of()})
    expect_refused(token, kFieldsInvalid);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, DotsAtTheEndsAndRepeatedDotsAreDropped) {
  const Draft draft;
  const std::string signature = signature_of(draft);
  const auto joined = [&](const std::string& dots) {
    return "v1" + dots + draft.expiry + dots + draft.nonce + dots + draft.digest + dots + signature;
  };
  for (const std::string& token :
       {"." + joined("."), joined(".") + ".", "..." + joined("."), joined(".") + "...",
        joined(".."), joined("....."), "....." + joined("...") + "....."}) {
    expect_accepted(token);
    expect_refused(token_of(), kUsed);
    forget_markers();
  }
  // Nothing but a dot separates.
  for (const char* separator : {",", " .", ". ", ":", "\t", "\xE2\x80\xA4"})
    EXPECT_FALSE(verify(joined(separator))) << separator;
}

TEST_F(Verifying, TheVersionIsV1) {
  const std::string rest = token_of().substr(2);
  for (const char* version : {"V1", "v2", "v", "1", "v10", "v01", " v1", "v1 ", "v\xC2\xB9"})
    expect_refused(version + rest, kFieldsInvalid);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, TheNonceIs32HexadecimalDigits) {
  for (const std::string& nonce :
       {kNonce.substr(1), kNonce + "0", "g" + kNonce.substr(1), kNonce.substr(1) + "g",
        kNonce.substr(1) + " ", kNonce.substr(1) + "/", kNonce.substr(1) + "\\", std::string("0"),
        std::string(32, '-'), "x/" + kNonce.substr(2)})
    expect_refused(token_of({.nonce = nonce}), kFieldsInvalid);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, DigestAndSignatureAre64HexadecimalDigits) {
  const std::string head = "v1." + std::to_string(kNow + kTtl) + "." + kNonce + ".";
  const std::string signature = signature_of({});
  for (const std::string& bad : {kDigest.substr(1), kDigest + "0", "g" + kDigest.substr(1),
                                 kDigest.substr(1) + "g", kDigest.substr(1) + "\n"}) {
    expect_refused(token_of({.digest = bad}), kFieldsInvalid);
    expect_refused(head + kDigest + "." + bad, kFieldsInvalid);
  }
  expect_refused(head + kDigest + "." + signature.substr(1), kFieldsInvalid);
  expect_refused(head + kDigest + "." + signature + "0", kFieldsInvalid);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, TheDigestMustBeTheExpectedOne) {
  const std::string token = token_of();
  for (std::size_t i = 0; i < kDigest.size(); ++i) {
    std::string other = kDigest;
    other[i] = other[i] == '0' ? '1' : '0';
    expect_refused(token, kFieldsInvalid, other);
  }
  EXPECT_TRUE(markers().empty());
}

// The case of a digest is bound by the signature, not by the comparison with the expected one.
TEST_F(Verifying, ADigestMayDifferInCaseWhenItWasSignedSo) {
  expect_accepted(token_of({.digest = upper(kDigest)}));
  forget_markers();
  expect_accepted(token_of(), upper(kDigest));
  forget_markers();
  expect_accepted(token_of({.digest = upper(kDigest)}), upper(kDigest));
  forget_markers();
  std::string token = token_of();
  const std::size_t at = token.find(kDigest);
  token.replace(at, kDigest.size(), upper(kDigest));
  expect_refused(token, kBadSignature);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, BothEndsOfTheTimeWindowAreIncluded) {
  const auto token = [this](std::uint64_t expiry) {
    return token_of({.expiry = std::to_string(expiry)});
  };
  expect_refused(token(kNow - 1), kExpired);
  expect_accepted(token(kNow));
  forget_markers();
  expect_accepted(token(kNow + 1));
  forget_markers();
  expect_accepted(token(kNow + kTtl));
  forget_markers();
  expect_refused(token(kNow + kTtl + 1), kExpired);
  expect_refused(token(0), kExpired);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, TheSameTokenAtDifferentTimes) {
  const std::string token = token_of({.expiry = "1700000300"});
  expect_refused(token, kExpired, kDigest, 1'700'000'301);
  expect_refused(token, kExpired, kDigest, 1'699'999'999);
  expect_refused(token, kExpired, kDigest, 0);
  expect_refused(token, kExpired, kDigest, UINT64_MAX);
  expect_accepted(token, kDigest, 1'700'000'300);
  forget_markers();
  expect_accepted(token, kDigest, 1'700'000'000);
}

// The lifetime that counts is that of the policy that verifies.
TEST_F(Verifying, ALongerLifetimeThanThePolicyAllowsIsRefused) {
  const std::string token = token_of({.expiry = std::to_string(kNow + 300)});
  policy->approval_ttl_seconds = 299;
  expect_refused(token, kExpired);
  expect_accepted(token, kDigest, kNow + 1);
  forget_markers();
  policy->approval_ttl_seconds = 900;
  expect_accepted(token);
}

TEST_F(Verifying, AnExpiryThatOverflowsDoesNotWrap) {
  for (const char* expiry :
       {"18446744073709551615", "18446744073709551616",
        // 2^64 and 2^32 more than an acceptable one.
        "18446744075409551716", "5994967396", "184467440754095517160", "99999999999999999999",
        "36893488149119103332", "340282366920938463463374607433468211456"})
    expect_refused(token_of({.expiry = expiry}), kExpired);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, TheLastSecondsThat64BitsHoldAreTold) {
  constexpr std::uint64_t kLast = UINT64_MAX;
  for (std::uint64_t before = 0; before < 12; ++before) {
    const std::uint64_t expiry = kLast - before;
    const std::string token = token_of({.expiry = std::to_string(expiry)});
    expect_refused(token, kExpired, kDigest, expiry - kTtl - 1);
    expect_accepted(token, kDigest, expiry - kTtl);
    forget_markers();
    if (before > 0) expect_refused(token, kExpired, kDigest, expiry + 1);
    expect_accepted(token, kDigest, expiry);
    forget_markers();
  }
}

TEST_F(Verifying, TheExpiryMayBeginWithZerosAndEndInOtherBytes) {
  for (const char* expiry :
       {"01700000300", "000000000000000001700000300", "1700000300x", "1700000300 ", "1700000300-",
        "1700000300|0", "1700000300e9", "1700000300\xC3\xA9", "1700000300,5", "0001700000000L"}) {
    expect_accepted(token_of({.expiry = expiry}));
    forget_markers();
  }
  // Only when it was signed so.
  const std::string token = token_of();
  expect_refused("v1.0" + token.substr(3), kBadSignature);
  std::string trailing = token;
  trailing.insert(token.find('.', 3), "x");
  expect_refused(trailing, kBadSignature);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, AnExpiryWithoutALeadingDigitIsZero) {
  for (const char* expiry : {"x", " 1700000300", "+1700000300", "-1", "-1700000300", "x1700000300",
                             "\t1700000300", "0x6553F22C"})
    expect_refused(token_of({.expiry = expiry}), kExpired);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, EveryCharacterIsBound) {
  const std::string token = token_of({.expiry = "1700000100"});
  const std::size_t nonce = token.find(kNonce);
  // The expiry: every change that stays in the window.
  for (const char* other : {"1700000101", "1700000110", "1700000200", "1700000000"}) {
    std::string forged = token;
    forged.replace(3, 10, other);
    expect_refused(forged, kBadSignature);
  }
  for (std::size_t i = 0; i < kNonce.size(); ++i) {
    std::string forged = token;
    forged[nonce + i] = forged[nonce + i] == '7' ? '8' : '7';
    expect_refused(forged, kBadSignature);
  }
  for (std::size_t i = 0; i < kDigest.size(); ++i) {
    std::string digest = kDigest;
    digest[i] = digest[i] == '7' ? '8' : '7';
    std::string forged = token;
    forged.replace(token.find(kDigest), kDigest.size(), digest);
    expect_refused(forged, kBadSignature, digest);
  }
  for (std::size_t i = token.size() - 64; i < token.size(); ++i) {
    std::string forged = token;
    forged[i] = forged[i] == '7' ? '8' : '7';
    expect_refused(forged, kBadSignature);
  }
  // A forged token spends nothing.
  EXPECT_TRUE(markers().empty());
  expect_accepted(token);
}

TEST_F(Verifying, TheCaseOfTheSignatureDoesNotCount) {
  const std::string token = token_of();
  expect_accepted(token.substr(0, token.size() - 64) + upper(token.substr(token.size() - 64)));
}

// The case of the nonce does: it was signed.
TEST_F(Verifying, TheCaseOfTheNonceIsSigned) {
  const std::string token = token_of();
  std::string forged = token;
  forged.replace(token.find(kNonce), kNonce.size(), upper(kNonce));
  expect_refused(forged, kBadSignature);
  EXPECT_TRUE(markers().empty());
}

TEST_F(Verifying, AMarkerKeepsTheNoncesCase) {
  const std::string nonce = "AABBccddEEff00112233445566778899";
  expect_accepted(token_of({.nonce = nonce}));
  EXPECT_EQ(markers(), std::vector<std::string>{nonce + ".used"});
}

TEST_F(Verifying, ATokenIsBoundToThePolicysIdentity) {
  const std::string token = token_of();
  for (char* field : {policy->name, policy->client_id, policy->database}) {
    const char first = field[0];
    field[0] = 'z';
    expect_refused(token, kBadSignature);
    field[0] = first;
  }
  EXPECT_TRUE(markers().empty());
  expect_accepted(token);
}

TEST_F(Verifying, NeedsTheSecretThatSigned) {
  const std::string token = token_of();
  secret_variable.unset();
  expect_refused(token, kNoSecret);
  secret_variable.set(std::string(31, 's'));
  expect_refused(token, kNoSecret);
  secret_variable.set(std::string(32, 's'));
  expect_refused(token, kBadSignature);
  secret_variable.set(kSecret + " ");
  expect_refused(token, kBadSignature);
  EXPECT_TRUE(markers().empty());
  // Read afresh.
  secret_variable.set(kSecret);
  expect_accepted(token);
}

TEST_F(Verifying, AFailedDigestSpendsNothing) {
  {
    const DigestFailure failing;
    expect_refused(token_of(), kNoSecret);
  }
  EXPECT_TRUE(markers().empty());
  expect_accepted(token_of());
}

TEST_F(Verifying, AnySecretOf32BytesAndMoreWorks) {
  for (const std::size_t size : {32U, 64U, 65U, 200U}) {
    const std::string secret(size, static_cast<char>('a' + size % 26));
    secret_variable.set(secret);
    const Draft draft;
    expect_accepted("v1." + draft.expiry + "." + draft.nonce + "." + draft.digest + "." +
                    signature_of(draft, secret));
    forget_markers();
  }
}

// A signing text that is too long is a failure to sign; the token's own bound lets none arrive.
TEST_F(Verifying, TheLongestTokenCanBeSigned) {
  TextOut(policy->name).copy_cut(std::string(63, 'n'));
  TextOut(policy->client_id).copy_cut(std::string(95, 'c'));
  TextOut(policy->database).copy_cut(std::string(63, 'd'));
  const std::string expiry = "1700000300" + std::string(255 - 176, 'x');
  const std::string token = token_of({.expiry = expiry});
  ASSERT_EQ(token.size(), 255U);
  expect_accepted(token);
}

// Each token has one fault fewer than the one before; the earliest check speaks.
TEST_F(Verifying, TheChecksStandInOrder) {
  TextOut(policy->approval_state_directory).copy_cut(folder.file("gone"));
  secret_variable.set("short");
  std::string token = token_of({.expiry = std::to_string(kNow - 1)});
  token.back() = token.back() == '7' ? '8' : '7';
  expect_refused("x" + token + std::string(100, '.'), kTokenInvalid);
  expect_refused("x" + token, kTokenInvalid, "beef");
  expect_refused("x" + token, kFieldsInvalid);
  expect_refused(token, kExpired);
  token = token_of();
  token.back() = token.back() == '7' ? '8' : '7';
  expect_refused(token, kNoSecret);
  secret_variable.set(kSecret);
  expect_refused(token, kBadSignature);
  expect_refused(token_of(), kUsed);
  TextOut(policy->approval_state_directory).copy_cut(folder.path());
  expect_accepted(token_of());
}

// The digest's binding stands before the time.
TEST_F(Verifying, AnExpiredTokenForAnotherStatementIsNotBound) {
  expect_refused(token_of({.expiry = "1"}), kFieldsInvalid, std::string(64, 'a'));
}

TEST_F(Verifying, EveryTruncationIsRefused) {
  const std::string token = token_of();
  for (std::size_t length = 0; length < token.size(); ++length) {
    const GuardedText text(token.substr(0, length));
    ASSERT_FALSE(approval_verify(*policy, kDigest, text.view(), kNow, message)) << length;
    ASSERT_EQ(std::string_view(message), kFieldsInvalid) << length;
    const GuardedText tail(token.substr(length + 1), GuardSide::kBefore);
    ASSERT_FALSE(approval_verify(*policy, kDigest, tail.view(), kNow, message)) << length;
  }
  EXPECT_TRUE(markers().empty());
}

// Several verifiers of one token at once: exactly one of them is let through.
TEST_F(Verifying, OneOfManyAtOnceIsAccepted) {
  constexpr int kVerifiers = 8;
  constexpr int kRounds = 25;
  for (int round = 0; round < kRounds; ++round) {
    std::string nonce = kNonce;
    nonce.replace(0, 2, to_hex(std::string(1, static_cast<char>(round + 1))));
    const std::string token = token_of({.nonce = nonce});
    std::atomic<int> waiting{0};
    std::atomic<int> accepted{0};
    std::atomic<int> used{0};
    std::vector<std::thread> verifiers;
    verifiers.reserve(kVerifiers);
    for (int i = 0; i < kVerifiers; ++i) {
      verifiers.emplace_back([&] {
        char refusal[kApprovalMessageCapacity] = {};
        ++waiting;
        while (waiting.load() < kVerifiers) std::this_thread::yield();
        if (approval_verify(*policy, kDigest, token, kNow, refusal)) {
          ++accepted;
        } else if (refusal == kUsed) {
          ++used;
        }
      });
    }
    for (std::thread& verifier : verifiers) verifier.join();
    ASSERT_EQ(accepted.load(), 1) << round;
    ASSERT_EQ(used.load(), kVerifiers - 1) << round;
  }
  EXPECT_EQ(markers().size(), static_cast<std::size_t>(kRounds));
}

}  // namespace
}  // namespace kova::testing
