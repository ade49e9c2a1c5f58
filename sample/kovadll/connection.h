// The client's end of a connection to the sample engine.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/socket.h"
#include "wire/wire.h"

namespace kova::sample {

/// A connection that several statement objects share; each exchange has it for itself. Once an
/// exchange fails it stays lost.
class Connection {
 public:
  using Payload = std::vector<char>;

  /// Connects to the first address of the host that takes the connection, and greets the engine.
  /// Null when that fails.
  [[nodiscard]] static std::shared_ptr<Connection> open(const char* host, const char* port);

  /// Sends a request and receives its reply, whose payload goes to `payload`. False when the
  /// connection is lost; `error` says why.
  [[nodiscard]] bool exchange(wire::FrameWriter& request, wire::Type expected, Payload& payload,
                              std::string& error);
  /// Has the engine forget an object. That goes out with the next exchange: two writes in a row
  /// would have the second one wait for the first one's acknowledgement.
  void release(std::uint32_t object);
  void close();

  [[nodiscard]] std::uint32_t new_object_number();

 private:
  [[nodiscard]] bool connect(const char* host, const char* port);
  [[nodiscard]] bool greet();
  [[nodiscard]] bool send(std::string_view frame);
  [[nodiscard]] bool receive(wire::Type expected, Payload& payload, std::string& error);

  std::mutex mutex_;
  Socket socket_;
  bool connected_ = false;
  std::string releases_;  ///< frames that wait for the next exchange
  std::uint32_t objects_ = 0;
};

}  // namespace kova::sample
