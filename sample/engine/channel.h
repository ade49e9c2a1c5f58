// Whole frames over a client's socket, each within a time limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "wire/wire.h"

namespace kova::sample {

/// The engine's end of a connection. Borrows the socket.
class Channel {
 public:
  enum class Received : std::uint8_t { kFrame, kGone, kTooLarge };

  Channel(int socket, std::uint32_t timeout_ms) : socket_(socket), timeout_ms_(timeout_ms) {}

  /// Reads the next frame. It may begin as late as `begin_by` (a tick count; 0 is never too late)
  /// and has to be complete within the time limit from then on.
  [[nodiscard]] Received receive(std::uint64_t begin_by, wire::Type& type);
  [[nodiscard]] std::string_view payload() const { return {payload_.data(), payload_.size()}; }
  /// Overwrites the payload, which may hold a password.
  void wipe_payload();
  /// Writes a whole frame; false when the client is gone or does not take it within the time
  /// limit.
  [[nodiscard]] bool send(std::string_view frame) const;

 private:
  [[nodiscard]] bool wait_readable(std::uint64_t until) const;
  [[nodiscard]] bool read_exactly(char* data, std::size_t size, std::uint64_t until) const;

  int socket_;
  std::uint32_t timeout_ms_;
  std::vector<char> payload_;
};

}  // namespace kova::sample
