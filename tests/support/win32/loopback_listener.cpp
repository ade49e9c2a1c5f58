#include "support/loopback_listener.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdlib>

namespace kova::testing {
namespace {

constexpr int kPatienceMs = 5000;

void start_sockets() {
  WSADATA data{};
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) std::abort();
}

SOCKET bound_socket() {
  const SOCKET handle = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (handle == INVALID_SOCKET ||
      bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    std::abort();
  return handle;
}

unsigned port_of(SOCKET handle) {
  sockaddr_in address{};
  int size = sizeof address;
  if (getsockname(handle, reinterpret_cast<sockaddr*>(&address), &size) != 0) std::abort();
  return ntohs(address.sin_port);
}

}  // namespace

LoopbackListener::LoopbackListener() {
  start_sockets();
  const SOCKET handle = bound_socket();
  socket_ = static_cast<std::intptr_t>(handle);
  port_ = port_of(handle);
  u_long non_blocking = 1;
  if (listen(handle, 16) != 0 ||
      ioctlsocket(handle, static_cast<long>(FIONBIO), &non_blocking) != 0)
    std::abort();
}

LoopbackListener::~LoopbackListener() {
  closesocket(static_cast<SOCKET>(socket_));
  WSACleanup();
}

bool LoopbackListener::had_connection() {
  const SOCKET connection = accept(static_cast<SOCKET>(socket_), nullptr, nullptr);
  if (connection == INVALID_SOCKET) return false;
  closesocket(connection);
  return true;
}

bool LoopbackListener::had_closed_connection() {
  const SOCKET connection = accept(static_cast<SOCKET>(socket_), nullptr, nullptr);
  if (connection == INVALID_SOCKET) return false;
  WSAPOLLFD wanted{connection, POLLRDNORM, 0};
  char byte = 0;
  const bool closed = WSAPoll(&wanted, 1, kPatienceMs) == 1 && recv(connection, &byte, 1, 0) == 0;
  closesocket(connection);
  return closed;
}

RefusedPort::RefusedPort() {
  start_sockets();
  const SOCKET handle = bound_socket();
  socket_ = static_cast<std::intptr_t>(handle);
  port_ = port_of(handle);
}

RefusedPort::~RefusedPort() {
  closesocket(static_cast<SOCKET>(socket_));
  WSACleanup();
}

std::string free_port() {
  start_sockets();
  const SOCKET handle = bound_socket();
  const unsigned port = port_of(handle);
  closesocket(handle);
  WSACleanup();
  return std::to_string(port);
}

}  // namespace kova::testing
