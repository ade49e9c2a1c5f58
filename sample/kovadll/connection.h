// The client's end of a connection to the sample engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/socket.h"
#include "wire/wire.h"

namespace kova::sample {

/// A connection that several statement objects share. Any thread; one exchange at a time. After a
/// failed exchange the connection stays lost.
class Connection {
 public:
  using Payload = std::vector<char>;

  /// Connects to the first address of the host that accepts, and greets the engine.
  Connection(const char* host, const char* port);

  /// Sends a request and returns the payload of its reply. Throws when the connection is lost.
  [[nodiscard]] Payload exchange(wire::FrameWriter& request, wire::Type expected);
  /// Has the engine forget an object. The frame goes out with the next exchange: of two writes in a
  /// row the second would wait for the acknowledgement of the first.
  void release(std::uint32_t object);
  void close();

  [[nodiscard]] std::uint32_t new_object_number();

 private:
  void connect(const char* host, const char* port);
  void greet();
  void send(std::string_view frame);
  [[nodiscard]] Payload receive(wire::Type expected);
  void receive_exactly(char* data, std::size_t size);

  std::mutex mutex_;
  Socket socket_;
  bool connected_ = false;
  std::string releases_;  ///< frames that wait for the next exchange
  std::uint32_t objects_ = 0;
};

}  // namespace kova::sample
