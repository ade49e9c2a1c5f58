#include "approval/token.h"

#include <limits>

#include "approval/replay_marker.h"
#include "approval/signature.h"
#include "base/ascii.h"
#include "base/hex.h"
#include "base/secret.h"
#include "platform/crypto.h"
#include "policy/predicates.h"

namespace kova {

namespace {

constexpr std::string_view kVersion = "v1";
constexpr std::size_t kNonceSize = 16;
constexpr std::size_t kNonceDigits = 2 * kNonceSize;
constexpr std::size_t kDigestDigits = 2 * kSha256Size;
constexpr std::size_t kExpiryCapacity = 24;
constexpr std::size_t kPieces = 5;

constexpr std::string_view kFieldsInvalid =
    "approval token fields or operation binding are invalid";

/// `digest` consists of hexadecimal digits, and so does a piece that equals it.
bool fields_are_valid(const TokenPieces& pieces, std::string_view digest) {
  return pieces.version == kVersion && is_hex(pieces.nonce, kNonceDigits) &&
         is_hex(pieces.signature, kDigestDigits) && equal_ignoring_case(pieces.digest, digest);
}

/// The number that the text begins with; the largest value when it does not fit.
std::uint64_t leading_number(std::string_view text) {
  constexpr std::uint64_t kLimit = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t number = 0;
  for (const char c : text) {
    if (!is_digit(c)) break;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (number > (kLimit - digit) / 10) return kLimit;
    number = number * 10 + digit;
  }
  return number;
}

bool signature_is_valid(const McpPolicy& policy, const TokenPieces& pieces, TextOut message) {
  char signature[kSignatureCapacity];
  const WipeGuard guard(signature);
  if (!approval_sign(policy, pieces.expiry, pieces.nonce, pieces.digest, signature)) {
    return refuse(message, "approval verification secret is unavailable");
  }
  return equal_ignoring_case_constant_time(signature, pieces.signature) ||
         refuse(message, "approval signature is invalid");
}

}  // namespace

bool approval_split(std::string_view token, TokenPieces& pieces) {
  std::string_view found[kPieces];
  std::size_t count = 0;
  for (std::size_t begin = token.find_first_not_of('.'); begin != token.npos;) {
    if (count == kPieces) return false;
    const std::size_t end = token.find('.', begin);
    found[count++] = slice(token, begin, end - begin);
    begin = token.find_first_not_of('.', end);
  }
  pieces = {.version = found[0],
            .expiry = found[1],
            .nonce = found[2],
            .digest = found[3],
            .signature = found[4]};
  return count == kPieces;
}

bool approval_issue(const McpPolicy& policy, std::string_view digest, std::uint64_t now,
                    TextOut token, TextOut message) {
  if (!policy_writes_allowed(policy) || !policy.approval_required ||
      !is_hex(digest, kDigestDigits)) {
    return refuse(message, "approval request or policy is invalid");
  }
  std::uint8_t random[kNonceSize];
  if (!random_bytes(random, sizeof random)) {
    return refuse(message, "approval nonce generation failed");
  }
  char nonce[kNonceDigits + 1];
  write_hex(random, nonce);
  char expiry[kExpiryCapacity];
  TextOut expiry_text(expiry);
  char signature[kSignatureCapacity];
  const WipeGuard guard(signature);
  const unsigned long long expires = now + policy.approval_ttl_seconds;
  if (!expiry_text.format("%llu", expires) ||
      !approval_sign(policy, expiry_text.view(), nonce, digest, signature)) {
    return refuse(message, "approval secret is unavailable or invalid");
  }
  return token.copy("v1.") && token.append(expiry_text.view()) && token.append('.') &&
         token.append(nonce) && token.append('.') && token.append(digest) && token.append('.') &&
         token.append(signature);
}

bool approval_verify(const McpPolicy& policy, std::string_view digest, std::string_view token,
                     std::uint64_t now, TextOut message) {
  if (token.size() >= kTokenCapacity || !is_hex(digest, kDigestDigits)) {
    return refuse(message, kTokenInvalid);
  }
  TokenPieces pieces;
  if (!approval_split(token, pieces) || !fields_are_valid(pieces, digest)) {
    return refuse(message, kFieldsInvalid);
  }
  const std::uint64_t expiry = leading_number(pieces.expiry);
  if (expiry < now || expiry - now > policy.approval_ttl_seconds) {
    return refuse(message, "approval token is expired or exceeds policy TTL");
  }
  return signature_is_valid(policy, pieces, message) &&
         consume_nonce(policy, pieces.nonce, message);
}

}  // namespace kova
