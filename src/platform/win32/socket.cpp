#include "platform/socket.h"

#include <algorithm>

#include "platform/win32/winsock.h"

namespace kova {

namespace {

/// Loaded by SocketLayer.
constinit Winsock winsock{};

constexpr std::size_t kTransferLimit = 1 << 20;

SOCKET socket_of(std::intptr_t handle) {
  return static_cast<SOCKET>(handle);
}

int transfer_size(std::size_t size) {
  return static_cast<int>(std::min(size, kTransferLimit));
}

bool set_non_blocking(SOCKET socket, bool non_blocking) {
  u_long mode = non_blocking ? 1 : 0;
  return winsock.ioctlsocket(socket, static_cast<long>(FIONBIO), &mode) == 0;
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
  return winsock.select(0, nullptr, &writable, &failed, &timeout) > 0 && writable.fd_count > 0;
}

bool connect_within(SOCKET socket, const addrinfo& address, std::uint32_t timeout_ms) {
  if (!set_non_blocking(socket, true)) return false;
  if (winsock.connect(socket, address.ai_addr, static_cast<int>(address.ai_addrlen)) != 0) {
    if (winsock.last_error() != WSAEWOULDBLOCK || !connected_within(socket, timeout_ms)) {
      return false;
    }
  }
  return set_non_blocking(socket, false);
}

SOCKET stream_socket(int family, int protocol) {
  return winsock.socket(family, SOCK_STREAM, protocol, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
}

bool passes(int error) {
  return error == WSAECONNRESET || error == WSAECONNABORTED || error == WSAEINTR;
}

bool is_lack_of_room(int error) {
  return error == WSAEMFILE || error == WSAENOBUFS;
}

}  // namespace

SocketLayer::SocketLayer() {
  WSADATA data{};
  ready_ = winsock.load() && winsock.startup(MAKEWORD(2, 2), &data) == 0;
}

SocketLayer::~SocketLayer() {
  if (ready_) winsock.cleanup();
}

AddressList::~AddressList() {
  if (head_ != nullptr) winsock.freeaddrinfo(static_cast<addrinfo*>(head_));
}

bool AddressList::resolve(const char* host, const char* port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (winsock.getaddrinfo(host, port, &hints, &found) != 0) return false;
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
  const SOCKET socket = stream_socket(target.ai_family, target.ai_protocol);
  if (socket == INVALID_SOCKET) return false;
  handle_ = static_cast<std::intptr_t>(socket);
  return connect_within(socket, target, timeout_ms);
}

bool Socket::send_all(const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const int sent = winsock.send(socket_of(handle_), bytes, transfer_size(size), 0);
    if (sent <= 0) return false;
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

std::size_t Socket::receive(void* data, std::size_t size) {
  const int got =
      winsock.recv(socket_of(handle_), static_cast<char*>(data), transfer_size(size), 0);
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}

bool Socket::has_waiting_bytes() {
  u_long waiting = 0;
  return winsock.ioctlsocket(socket_of(handle_), FIONREAD, &waiting) == 0 && waiting > 0;
}

void Socket::shut_down() {
  winsock.shutdown(socket_of(handle_), SD_BOTH);
}

void Socket::close() {
  if (handle_ != -1) winsock.closesocket(socket_of(handle_));
  handle_ = -1;
}

bool LoopbackListener::listen(std::uint16_t port) {
  close();
  const SOCKET socket = stream_socket(AF_INET, IPPROTO_TCP);
  if (socket == INVALID_SOCKET) return false;
  socket_.handle_ = static_cast<std::intptr_t>(socket);
  // Without it another program could listen on the same port and take the clients.
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = winsock.htons(port);
  address.sin_addr.s_addr = winsock.htonl(INADDR_LOOPBACK);
  return winsock.setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
                            reinterpret_cast<const char*>(&on), sizeof on) == 0 &&
         winsock.bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
         winsock.listen(socket, kBacklog) == 0;
}

// Between the acceptance and the call that stops inheritance a child may start; it is given the
// handles on its list alone.
bool LoopbackListener::accept(Socket& client) {
  client.close();
  for (;;) {
    const SOCKET accepted = winsock.accept(socket_of(socket_.handle_), nullptr, nullptr);
    if (accepted != INVALID_SOCKET) {
      client.handle_ = static_cast<std::intptr_t>(accepted);
      ::SetHandleInformation(reinterpret_cast<HANDLE>(accepted), HANDLE_FLAG_INHERIT, 0);
      return true;
    }
    const int error = winsock.last_error();
    if (is_lack_of_room(error)) {
      ::Sleep(kNoRoomWaitMs);
    } else if (!passes(error)) {
      return false;
    }
  }
}

}  // namespace kova
