#include "platform/socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>

namespace kova {

namespace {

constexpr std::size_t kLargestTransfer = 1 << 20;

SOCKET socket_of(std::intptr_t handle) {
  return static_cast<SOCKET>(handle);
}

int transfer_size(std::size_t size) {
  return static_cast<int>(std::min(size, kLargestTransfer));
}

bool set_non_blocking(SOCKET socket, bool non_blocking) {
  u_long mode = non_blocking ? 1 : 0;
  return ::ioctlsocket(socket, static_cast<long>(FIONBIO), &mode) == 0;
}

// A refused connection shows in the exception set only.
bool connected_within(SOCKET socket, std::uint32_t timeout_ms) {
  fd_set writable;
  fd_set failed;
  FD_ZERO(&writable);
  FD_ZERO(&failed);
  FD_SET(socket, &writable);
  FD_SET(socket, &failed);
  timeval timeout{.tv_sec = static_cast<long>(timeout_ms / 1000),
                  .tv_usec = static_cast<long>(timeout_ms % 1000) * 1000};
  return ::select(0, nullptr, &writable, &failed, &timeout) > 0 && FD_ISSET(socket, &writable) != 0;
}

bool connect_within(SOCKET socket, const addrinfo& address, std::uint32_t timeout_ms) {
  if (!set_non_blocking(socket, true)) return false;
  if (::connect(socket, address.ai_addr, static_cast<int>(address.ai_addrlen)) != 0) {
    if (::WSAGetLastError() != WSAEWOULDBLOCK || !connected_within(socket, timeout_ms)) {
      return false;
    }
  }
  return set_non_blocking(socket, false);
}

}  // namespace

SocketLayer::SocketLayer() {
  WSADATA data{};
  ready_ = ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
}

SocketLayer::~SocketLayer() {
  if (ready_) ::WSACleanup();
}

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
  const SOCKET socket = ::WSASocketW(target.ai_family, target.ai_socktype, target.ai_protocol,
                                     nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (socket == INVALID_SOCKET) return false;
  handle_ = static_cast<std::intptr_t>(socket);
  return connect_within(socket, target, timeout_ms);
}

bool Socket::send_all(const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const int sent = ::send(socket_of(handle_), bytes, transfer_size(size), 0);
    if (sent <= 0) return false;
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

bool Socket::receive_all(void* data, std::size_t size) {
  char* bytes = static_cast<char*>(data);
  while (size > 0) {
    const int got = ::recv(socket_of(handle_), bytes, transfer_size(size), 0);
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

void Socket::close() {
  if (handle_ != -1) ::closesocket(socket_of(handle_));
  handle_ = -1;
}

}  // namespace kova
