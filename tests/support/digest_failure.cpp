#include "support/digest_failure.h"

#include <atomic>
#include <cstring>
#include <string_view>

#include "support/renamed/renamed.h"

namespace kova {
namespace {

std::atomic<bool> failing{false};

bool fail(std::uint8_t (&digest)[kSha256Size]) {
  std::memset(digest, 0xD6, sizeof digest);
  return false;
}

}  // namespace

bool sha256_digest(std::string_view data, std::uint8_t (&digest)[kSha256Size]) {
  return failing ? fail(digest) : real_sha256_digest(data, digest);
}

bool hmac_sha256_digest(std::string_view data, std::string_view key,
                        std::uint8_t (&digest)[kSha256Size]) {
  return failing ? fail(digest) : real_hmac_sha256_digest(data, key, digest);
}

namespace testing {

DigestFailure::DigestFailure() {
  failing = true;
}

DigestFailure::~DigestFailure() {
  failing = false;
}

}  // namespace testing
}  // namespace kova
