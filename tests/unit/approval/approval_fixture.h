// Policies that ask for approvals, and tokens made by hand.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "approval/token.h"
#include "base/text.h"
#include "policy/predicates.h"
#include "support/environment.h"
#include "support/guard_page.h"
#include "support/reference_digest.h"
#include "support/temporary_directory.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {

inline constexpr char kApprovalSecret[] = "KOVA_MCP_APPROVAL_SECRET";
inline const std::string kSecret = "correct horse battery staple 0123456789";

inline constexpr std::uint64_t kNow = 1'700'000'000;
inline constexpr std::uint32_t kTtl = 300;
inline const std::string kNonce = "00112233445566778899aabbccddeeff";
inline const std::string kDigest =
    "cb062bc682c4948c493b67ac874032ac901d00662755e1038828c6f21e155954";

inline std::string upper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

/// The names in a directory, in order.
inline std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  const std::filesystem::path path(std::u8string(directory.begin(), directory.end()));
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    const std::u8string name = entry.path().filename().u8string();
    names.emplace_back(name.begin(), name.end());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// The pieces of a token before it is signed.
struct Draft {
  std::string expiry = std::to_string(kNow + kTtl);
  std::string nonce = kNonce;
  std::string digest = kDigest;
};

/// What an operation wrote as its message; this while it wrote none.
inline constexpr char kUntouched[] = "untouched";

class Approvals : public ::testing::Test {
 protected:
  Approvals() {
    policy->writes_enabled = true;
    policy->approval_required = true;
    policy->approval_ttl_seconds = kTtl;
    TextOut(policy->client_id).copy_cut("desk-7.client_A");
    TextOut(policy->approval_state_directory).copy_cut(folder.path());
    TextOut(message).copy_cut(kUntouched);
  }

  [[nodiscard]] std::string signature_of(const Draft& draft,
                                         std::string_view secret = kSecret) const {
    const std::string text = "v1|" + draft.expiry + "|" + draft.nonce + "|" + draft.digest + "|" +
                             policy->name + "|" + policy->client_id + "|" + policy->database;
    return to_hex(reference_hmac(secret, text));
  }
  [[nodiscard]] std::string token_of(const Draft& draft = {}) const {
    return "v1." + draft.expiry + "." + draft.nonce + "." + draft.digest + "." +
           signature_of(draft);
  }

  /// Verifies with the token and the digest before unreadable pages. The message is untouched after
  /// a success only.
  bool verify(std::string_view token, std::string_view digest = kDigest, std::uint64_t now = kNow) {
    TextOut(message).copy_cut(kUntouched);
    return approval_verify(*policy, GuardedText(digest).view(), GuardedText(token).view(), now,
                           message);
  }
  void expect_accepted(std::string_view token, std::string_view digest = kDigest,
                       std::uint64_t now = kNow) {
    EXPECT_TRUE(verify(token, digest, now)) << token;
    EXPECT_STREQ(message, kUntouched) << token;
  }
  void expect_refused(std::string_view token, std::string_view expected,
                      std::string_view digest = kDigest, std::uint64_t now = kNow) {
    EXPECT_FALSE(verify(token, digest, now)) << token;
    EXPECT_EQ(std::string_view(message), expected) << token;
  }
  [[nodiscard]] std::vector<std::string> markers() const { return names_in(folder.path()); }
  /// Makes every nonce new again.
  void forget_markers() const {
    for (const std::string& name : markers()) {
      const std::string path = folder.file(name);
      std::filesystem::remove(std::filesystem::path(std::u8string(path.begin(), path.end())));
    }
  }

  TemporaryDirectory folder;
  ScopedEnvironment secret_variable{kApprovalSecret, kSecret};
  ScopedEnvironment writes_switch{kDisableWrites};
  std::unique_ptr<McpPolicy> policy = loaded_policy();
  char message[kApprovalMessageCapacity];
};

inline constexpr std::string_view kTokenInvalid = "approval token is invalid";
inline constexpr std::string_view kFieldsInvalid =
    "approval token fields or operation binding are invalid";
inline constexpr std::string_view kExpired = "approval token is expired or exceeds policy TTL";
inline constexpr std::string_view kNoSecret = "approval verification secret is unavailable";
inline constexpr std::string_view kBadSignature = "approval signature is invalid";
inline constexpr std::string_view kBadPath = "approval replay path is invalid";
inline constexpr std::string_view kUsed =
    "approval token was already used or replay state is unavailable";
inline constexpr std::string_view kBadRequest = "approval request or policy is invalid";
inline constexpr std::string_view kCannotSign = "approval secret is unavailable or invalid";

}  // namespace kova::testing
