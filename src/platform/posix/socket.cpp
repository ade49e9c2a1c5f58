#include "platform/socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
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

bool Socket::receive_all(void* data, std::size_t size) {
  char* bytes = static_cast<char*>(data);
  while (size > 0) {
    const ssize_t got = ::recv(descriptor_of(handle_), bytes, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

void Socket::close() {
  if (handle_ >= 0) ::close(descriptor_of(handle_));
  handle_ = -1;
}

}  // namespace kova
