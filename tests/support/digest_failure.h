// Digests that fail on purpose. The unit test binary is linked so that its calls of sha256_digest
// and hmac_sha256_digest pass through here.
#pragma once

namespace kova::testing {

/// While it lives, every digest fails, plain and keyed, and leaves bytes that nobody may use.
class DigestFailure {
 public:
  DigestFailure();
  ~DigestFailure();
  DigestFailure(const DigestFailure&) = delete;
  DigestFailure& operator=(const DigestFailure&) = delete;
};

}  // namespace kova::testing
