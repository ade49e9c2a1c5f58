// Approval tokens: "v1.EXPIRY.NONCE.DIGEST.SIGNATURE", issued by the operator for one write and
// accepted once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/text.h"
#include "policy/policy.h"

namespace kova {

/// The message for a text that is no token.
inline constexpr std::string_view kTokenInvalid = "approval token is invalid";
inline constexpr std::size_t kTokenCapacity = 256;
inline constexpr std::size_t kApprovalMessageCapacity = 256;

/// The pieces of a token, as they stand in it.
struct TokenPieces {
  std::string_view version, expiry, nonce, digest, signature;
};

/// Cuts a token at runs of dots; dots at either end are dropped. False unless there are five
/// pieces. Nothing else is checked.
[[nodiscard]] bool approval_split(std::string_view token, TokenPieces& pieces);

/// Writes a token for the operation digest (64 hexadecimal digits), valid from `now` (seconds
/// since 1970) for the policy's lifetime. False writes the message of the first check that failed,
/// or none when the token does not fit.
[[nodiscard]] bool approval_issue(const McpPolicy& policy, std::string_view digest,
                                  std::uint64_t now, TextOut token, TextOut message);

/// Accepts a token for the operation digest and uses it up. False writes the message of the first
/// check that failed. Whether a token is needed is not asked here.
[[nodiscard]] bool approval_verify(const McpPolicy& policy, std::string_view digest,
                                   std::string_view token, std::uint64_t now, TextOut message);

}  // namespace kova
