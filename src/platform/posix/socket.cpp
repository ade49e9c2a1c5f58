#include "platform/socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/clock.h"

namespace kova {

namespace {

int descriptor_of(std::intptr_t handle) {
  return static_cast<int>(handle);
}

// A refused connection is writable too; the socket's own error tells them apart.
bool connected_within(int descriptor, std::uint32_t timeout_ms) {
  const std::uint64_t until = tick_ms() + timeout_ms;
  pollfd entry{.fd = descriptor, .events = POLLOUT, .revents = 0};
  for (;;) {
    const std::uint64_t now = tick_ms();
    const int left = now < until ? static_cast<int>(until - now) : 0;
    const int ready = ::poll(&entry, 1, left);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    break;
  }
  int error = 0;
  socklen_t size = sizeof error;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

bool connect_within(int descriptor, const addrinfo& address, std::uint32_t timeout_ms) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  if (flags < 0 || ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != 0) return false;
  if (::connect(descriptor, address.ai_addr, address.ai_addrlen) != 0) {
    if (errno != EINPROGRESS || !connected_within(descriptor, timeout_ms)) return false;
  }
  return ::fcntl(descriptor, F_SETFL, flags) == 0;
}

bool passes(int error) {
  return error == EINTR || error == ECONNABORTED || error == EPROTO || error == EPERM;
}

bool is_lack_of_room(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

SocketLayer::SocketLayer() : ready_(true) {}

SocketLayer::~SocketLayer() = default;

AddressList::~AddressList() {
  if (head_ != nullptr) ::freeaddrinfo(static_cast<addrinfo*>(head_));
}

bool AddressList::resolve(const char* host, const char* port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host, port, &hints, &found) != 0) return false;
  head_ = found;
  return true;
}

const void* AddressList::next(const void* address) {
  return static_cast<const addrinfo*>(address)->ai_next;
}

Socket::~Socket() {
  close();
}

bool Socket::connect(const void* address, std::uint32_t timeout_ms) {
  const auto& target = *static_cast<const addrinfo*>(address);
  close();
  handle_ = ::socket(target.ai_family, target.ai_socktype | SOCK_CLOEXEC, target.ai_protocol);
  return handle_ >= 0 && connect_within(descriptor_of(handle_), target, timeout_ms);
}

bool Socket::send_all(const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t sent = ::send(descriptor_of(handle_), bytes, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

std::size_t Socket::receive(void* data, std::size_t size) {
  for (;;) {
    const ssize_t got = ::recv(descriptor_of(handle_), data, size, 0);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) return 0;
  }
}

bool Socket::has_waiting_bytes() {
  int waiting = 0;
  return ::ioctl(descriptor_of(handle_), FIONREAD, &waiting) == 0 && waiting > 0;
}

void Socket::shut_down() {
  ::shutdown(descriptor_of(handle_), SHUT_RDWR);
}

void Socket::close() {
  if (handle_ >= 0) ::close(descriptor_of(handle_));
  handle_ = -1;
}

bool LoopbackListener::listen(std::uint16_t port) {
  close();
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  socket_.handle_ = descriptor;
  // The connections of a listener that has just ended do not keep its port.
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return descriptor >= 0 &&
         ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
         ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
         ::listen(descriptor, kBacklog) == 0;
}

bool LoopbackListener::accept(Socket& client) {
  client.close();
  for (;;) {
    const int accepted = ::accept4(descriptor_of(socket_.handle_), nullptr, nullptr, SOCK_CLOEXEC);
    client.handle_ = accepted;
    if (accepted >= 0) return true;
    if (is_lack_of_room(errno)) {
      ::poll(nullptr, 0, kNoRoomWaitMs);
    } else if (!passes(errno)) {
      return false;
    }
  }
}

}  // namespace kova
