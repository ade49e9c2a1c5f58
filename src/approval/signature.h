// The approval signature: what binds an approval to its expiry, nonce, operation and policy.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/crypto.h"
#include "policy/policy.h"

namespace kova {

inline constexpr std::size_t kSignatureCapacity = 2 * kSha256Size + 1;

/// Signs the three texts and the policy's name, client and database with the secret of
/// KOVA_MCP_APPROVAL_SECRET, read anew (HMAC-SHA-256, lower-case hexadecimal). False without a
/// secret of at least 32 bytes, for texts of over 511 bytes in all, and when the digest fails.
[[nodiscard]] bool approval_sign(const McpPolicy& policy, std::string_view expiry,
                                 std::string_view nonce, std::string_view digest,
                                 char (&signature)[kSignatureCapacity]);

}  // namespace kova
