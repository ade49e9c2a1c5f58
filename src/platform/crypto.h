// The operating system's cryptography: SHA-256 (FIPS 180-4), HMAC-SHA-256 (RFC 2104) and random
// bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova {

inline constexpr std::size_t kSha256Size = 32;

/// The SHA-256 digest of `data`. False leaves `digest` undefined.
[[nodiscard]] bool sha256_digest(std::string_view data, std::uint8_t (&digest)[kSha256Size]);

/// The HMAC-SHA-256 of `data` under a key of any length; one of over 64 bytes is hashed first.
/// False leaves `digest` undefined.
[[nodiscard]] bool hmac_sha256_digest(std::string_view data, std::string_view key,
                                      std::uint8_t (&digest)[kSha256Size]);

/// Fills the buffer from the system's generator for secrets.
[[nodiscard]] bool random_bytes(std::uint8_t* data, std::size_t size);

}  // namespace kova
