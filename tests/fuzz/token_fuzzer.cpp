// Approval tokens against their rules: the same ones are accepted, every refusal has the message of
// the first rule, a marker is made for what was accepted and for nothing else, and no token is
// accepted twice. The input is a byte that chooses the circumstances and a template of a token, in
// which %e, %n, %d and %s stand for a good expiry, nonce, digest and signature of what precedes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "approval/token.h"
#include "fuzz/require.h"
#include "platform/file.h"
#include "policy/policy.h"
#include "support/reference_digest.h"

namespace {

/// The markers of a run.
std::vector<std::string> markers;

}  // namespace

// Stands in for platform/posix/file.cpp: markers in memory.
namespace kova {

constinit const char kPathSeparator = '/';

bool create_marker_file(const char* path) {
  if (std::find(markers.begin(), markers.end(), path) != markers.end()) return false;
  markers.emplace_back(path);
  return true;
}

}  // namespace kova

namespace {

using kova::fuzz::require;

constexpr std::uint64_t kNow = 1'700'000'000;
constexpr std::uint32_t kTtl = 300;
constexpr std::string_view kNonce = "00112233445566778899aabbccddeeff";
constexpr std::string_view kDigest =
    "cb062bc682c4948c493b67ac874032ac901d00662755e1038828c6f21e155954";

constexpr std::string_view kTokenInvalid = "approval token is invalid";
constexpr std::string_view kFieldsInvalid =
    "approval token fields or operation binding are invalid";
constexpr std::string_view kUsed = "approval token was already used or replay state is unavailable";

// Part of the environment, so that a run can shorten it without a copy.
char secret_entry[] = "KOVA_MCP_APPROVAL_SECRET=correct horse battery staple 0123456789";
constexpr std::size_t kSecretBegin = 25;
constexpr std::size_t kShortSecret = 31;

std::string_view secret() {
  return secret_entry + kSecretBegin;
}

kova::McpPolicy make_policy() {
  kova::McpPolicy policy{};
  policy.configured = policy.valid = true;
  policy.writes_enabled = policy.approval_required = true;
  policy.write_type_mask = kova::kInsert;
  policy.approval_ttl_seconds = kTtl;
  std::strcpy(policy.name, "Demo_1");
  std::strcpy(policy.client_id, "desk-7.client_A");
  std::strcpy(policy.database, "SHOP");
  std::strcpy(policy.approval_state_directory, "/state");
  std::strcpy(policy.write_tables.names[0], "LOG");
  policy.write_tables.count = 1;
  return policy;
}

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  return result;
}

bool is_hex(std::string_view text, std::size_t size) {
  return text.size() == size &&
         text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

/// What stands between dots, without empty pieces.
std::vector<std::string> pieces_of(std::string_view token) {
  std::vector<std::string> pieces(1);
  for (const char c : token) {
    if (c != '.') {
      pieces.back() += c;
    } else if (!pieces.back().empty()) {
      pieces.emplace_back();
    }
  }
  if (pieces.back().empty()) pieces.pop_back();
  return pieces;
}

/// Of the pieces behind the version; those that are missing are empty.
std::string signature_of(std::vector<std::string> pieces) {
  static std::string last_text;
  static std::string last_signature;
  pieces.resize(4);
  const std::string text = "v1|" + pieces[1] + "|" + pieces[2] + "|" + pieces[3] +
                           "|Demo_1|desk-7.client_A|SHOP" + std::string(secret());
  if (text != last_text) {
    const std::string_view signed_text(text.data(), text.size() - secret().size());
    last_text = text;
    last_signature = kova::testing::to_hex(kova::testing::reference_hmac(secret(), signed_text));
  }
  return last_signature;
}

std::string token_of(std::string_view pattern) {
  std::string token;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const char kind = pattern[i] == '%' && i + 1 < pattern.size() ? pattern[i + 1] : '\0';
    switch (kind) {
      case 'e':
        token += std::to_string(kNow + kTtl);
        break;
      case 'n':
        token += kNonce;
        break;
      case 'd':
        token += kDigest;
        break;
      case 's':
        token += signature_of(pieces_of(token));
        break;
      default:
        token += pattern[i];
        continue;
    }
    ++i;
  }
  return token;
}

bool is_within_lifetime(std::string_view expiry) {
  std::uint64_t seconds = 0;
  for (const char c : expiry) {
    if (c < '0' || c > '9') break;
    seconds = seconds * 10 + static_cast<std::uint64_t>(c - '0');
    if (seconds > kNow + kTtl) return false;
  }
  return seconds >= kNow;
}

/// The message of the first rule that does not hold, or an empty text.
std::string_view plain_message(std::string_view token, std::string_view digest) {
  if (token.size() > 255 || !is_hex(digest, 64)) return kTokenInvalid;
  const std::vector<std::string> pieces = pieces_of(token);
  if (pieces.size() != 5 || pieces[0] != "v1" || !is_hex(pieces[2], 32) || !is_hex(pieces[3], 64) ||
      !is_hex(pieces[4], 64) || lower(pieces[3]) != lower(digest)) {
    return kFieldsInvalid;
  }
  if (!is_within_lifetime(pieces[1])) return "approval token is expired or exceeds policy TTL";
  if (secret().size() < 32) return "approval verification secret is unavailable";
  if (lower(pieces[4]) != signature_of(pieces)) return "approval signature is invalid";
  return {};
}

void check_token(const kova::McpPolicy& policy, std::string_view digest, std::string_view token) {
  const std::string_view expected = plain_message(token, digest);
  char message[kova::kApprovalMessageCapacity] = "";
  const bool accepted = kova::approval_verify(policy, digest, token, kNow, message);
  require(accepted == expected.empty() && message == expected,
          "the first rule that does not hold is reported");
  require(markers.size() == (accepted ? 1 : 0), "what was accepted leaves a marker");
  if (!accepted) return;
  require(markers[0] == "/state/" + pieces_of(token)[2] + ".used", "a nonce has one marker");
  require(!kova::approval_verify(policy, digest, token, kNow, message) && message == kUsed,
          "no token is accepted twice");
}

void check_issue(const kova::McpPolicy& policy, std::string_view digest) {
  char token[kova::kTokenCapacity];
  char message[kova::kApprovalMessageCapacity] = "";
  const bool issued = kova::approval_issue(policy, digest, kNow, token, message);
  require(issued == (is_hex(digest, 64) && secret().size() >= 32),
          "a token is issued for a digest, with a secret");
  if (issued) {
    markers.clear();
    require(plain_message(token, digest).empty(), "an issued token is good");
    check_token(policy, digest, token);
  }
}

std::string digest_of(unsigned kind) {
  std::string digest(kDigest);
  if (kind == 1)
    std::transform(digest.begin(), digest.end(), digest.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c ^ 0x20) : c; });
  if (kind == 2) digest[63] = '5';
  if (kind == 3) digest.pop_back();
  return digest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kova::McpPolicy policy = make_policy();
  [[maybe_unused]] static const int known = putenv(secret_entry);
  if (size == 0) return 0;
  const unsigned circumstances = data[0];
  const std::string_view pattern(reinterpret_cast<const char*>(data) + 1, size - 1);
  char& end_of_short_secret = secret_entry[kSecretBegin + kShortSecret];
  const char whole = end_of_short_secret;
  if ((circumstances & 4u) != 0) end_of_short_secret = '\0';
  const std::string digest = digest_of(circumstances & 3u);
  markers.clear();
  check_token(policy, digest, token_of(pattern));
  if ((circumstances & 24u) == 24u) check_issue(policy, digest);
  end_of_short_secret = whole;
  return 0;
}
