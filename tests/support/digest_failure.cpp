#include "support/digest_failure.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/crypto.h"

namespace kova::testing {

using Digest = std::uint8_t (&)[kSha256Size];

// The names that the linker's --wrap gives to a wrapped function and to its stand-in.
bool real_sha256(std::string_view data, Digest digest) __asm__(
    "__real__ZN4kova13sha256_digestESt17basic_string_viewIcSt11char_traitsIcEERA32_h");
bool sha256(std::string_view data, Digest digest) __asm__(
    "__wrap__ZN4kova13sha256_digestESt17basic_string_viewIcSt11char_traitsIcEERA32_h");
bool real_hmac(std::string_view data, std::string_view key, Digest digest) __asm__(
    "__real__ZN4kova18hmac_sha256_digestESt17basic_string_viewIcSt11char_traitsIcEES3_RA32_h");
bool hmac(std::string_view data, std::string_view key, Digest digest) __asm__(
    "__wrap__ZN4kova18hmac_sha256_digestESt17basic_string_viewIcSt11char_traitsIcEES3_RA32_h");

namespace {

std::atomic<bool> failing{false};

bool fail(Digest digest) {
  std::memset(digest, 0xD6, sizeof digest);
  return false;
}

}  // namespace

bool sha256(std::string_view data, Digest digest) {
  return failing ? fail(digest) : real_sha256(data, digest);
}

bool hmac(std::string_view data, std::string_view key, Digest digest) {
  return failing ? fail(digest) : real_hmac(data, key, digest);
}

DigestFailure::DigestFailure() {
  failing = true;
}

DigestFailure::~DigestFailure() {
  failing = false;
}

}  // namespace kova::testing
