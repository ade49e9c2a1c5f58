// Random bytes that cannot be had. The unit test binary is linked so that its calls of random_bytes
// pass through here.
#pragma once

namespace kova::testing {

/// While it lives, the system's generator gives nothing.
class RandomFailure {
 public:
  RandomFailure();
  ~RandomFailure();
  RandomFailure(const RandomFailure&) = delete;
  RandomFailure& operator=(const RandomFailure&) = delete;
};

}  // namespace kova::testing
