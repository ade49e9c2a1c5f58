// Random bytes that cannot be had. The unit tests' own random_bytes stands in for the product's and
// calls it (see renamed/renamed.h).
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
