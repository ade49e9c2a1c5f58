// SHA-256 (FIPS 180-4) of data that comes in pieces.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/crypto.h"

namespace kova {

/// One digest after another; used by one thread at a time.
class Sha256Stream {
 public:
  Sha256Stream();
  ~Sha256Stream();
  Sha256Stream(const Sha256Stream&) = delete;
  Sha256Stream& operator=(const Sha256Stream&) = delete;

  /// Forgets what was added. False when the system has no digest to give.
  [[nodiscard]] bool begin();
  [[nodiscard]] bool add(std::string_view data);
  /// The digest of what was added since `begin`, which is called before the next use.
  [[nodiscard]] bool finish(std::uint8_t (&digest)[kSha256Size]);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kova
