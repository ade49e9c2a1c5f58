// TCP clients.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kova {

/// Holds the system's socket layer open. Needed around every other use of this header.
class SocketLayer {
 public:
  SocketLayer();
  ~SocketLayer();
  SocketLayer(const SocketLayer&) = delete;
  SocketLayer& operator=(const SocketLayer&) = delete;

  [[nodiscard]] bool ready() const { return ready_; }

 private:
  bool ready_;
};

/// The stream addresses of a host and port, in the resolver's order.
class AddressList {
 public:
  AddressList() = default;
  ~AddressList();
  AddressList(const AddressList&) = delete;
  AddressList& operator=(const AddressList&) = delete;

  [[nodiscard]] bool resolve(const char* host, const char* port);
  /// The first address, or null.
  [[nodiscard]] const void* first() const { return head_; }
  /// The one after `address`, or null.
  [[nodiscard]] static const void* next(const void* address);

 private:
  void* head_ = nullptr;
};

/// A stream socket, closed at destruction and never inherited by a child.
class Socket {
 public:
  Socket() = default;
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  /// Connects to one address of an AddressList within the time limit. Leaves the socket blocking.
  [[nodiscard]] bool connect(const void* address, std::uint32_t timeout_ms);
  [[nodiscard]] bool send_all(const void* data, std::size_t size);
  /// Reads exactly `size` bytes; false on an error or an earlier end.
  [[nodiscard]] bool receive_all(void* data, std::size_t size);
  void close();

 private:
  std::intptr_t handle_ = -1;
};

}  // namespace kova
