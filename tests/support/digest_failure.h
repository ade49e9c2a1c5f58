// Digests that fail on purpose. The unit tests' own sha256_digest and hmac_sha256_digest stand in
// for the product's and call them (see renamed/renamed.h).
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
