// TCP clients, and a server on the loopback address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

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
  Socket(Socket&& other) noexcept : handle_(std::exchange(other.handle_, -1)) {}
  Socket& operator=(Socket&&) = delete;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  /// Connects to one address of an AddressList within the time limit. Leaves the socket blocking.
  [[nodiscard]] bool connect(const void* address, std::uint32_t timeout_ms);
  [[nodiscard]] bool send_all(const void* data, std::size_t size);
  /// Reads what is there, at most `size` bytes, waiting until there is something; 0 at the end and
  /// after an error.
  [[nodiscard]] std::size_t receive(void* data, std::size_t size);
  /// Whether the peer has sent bytes that were not read yet.
  [[nodiscard]] bool has_waiting_bytes();
  /// Ends both directions.
  void shut_down();
  void close();

 private:
  friend class LoopbackListener;
  std::intptr_t handle_ = -1;
};

/// A socket that clients of this machine connect to.
class LoopbackListener {
 public:
  /// Connections that the system completes before they are accepted.
  static constexpr int kBacklog = 16;
  /// The pause while the system has no room for another connection.
  static constexpr std::uint32_t kNoRoomWaitMs = 20;

  /// Listens on 127.0.0.1 with room for kBacklog connections that wait; no other listener may have
  /// the port.
  [[nodiscard]] bool listen(std::uint16_t port);
  /// Waits for a connection. One that its client has given up meanwhile is passed over, and while
  /// the system has no room for another one, it stays waiting. False when nothing can come any
  /// more.
  [[nodiscard]] bool accept(Socket& client);
  void close() { socket_.close(); }

 private:
  Socket socket_;
};

}  // namespace kova
