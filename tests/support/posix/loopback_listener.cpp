#include "support/loopback_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace kova::testing {
namespace {

constexpr int kPatienceMs = 5000;

int bound_socket() {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (descriptor < 0 ||
      bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    std::abort();
  return descriptor;
}

unsigned port_of(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) std::abort();
  return ntohs(address.sin_port);
}

}  // namespace

LoopbackListener::LoopbackListener() : socket_(bound_socket()) {
  const int descriptor = static_cast<int>(socket_);
  port_ = port_of(descriptor);
  if (listen(descriptor, 16) != 0 || fcntl(descriptor, F_SETFL, O_NONBLOCK) != 0) std::abort();
}

LoopbackListener::~LoopbackListener() {
  close(static_cast<int>(socket_));
}

bool LoopbackListener::had_connection() {
  const int connection = accept(static_cast<int>(socket_), nullptr, nullptr);
  if (connection < 0) return false;
  close(connection);
  return true;
}

bool LoopbackListener::had_closed_connection() {
  pollfd connection{
      .fd = accept(static_cast<int>(socket_), nullptr, nullptr), .events = POLLIN, .revents = 0};
  if (connection.fd < 0) return false;
  char byte = 0;
  const bool closed =
      poll(&connection, 1, kPatienceMs) == 1 && recv(connection.fd, &byte, 1, 0) == 0;
  close(connection.fd);
  return closed;
}

RefusedPort::RefusedPort()
    : socket_(static_cast<std::intptr_t>(bound_socket())),
      port_(port_of(static_cast<int>(socket_))) {}

RefusedPort::~RefusedPort() {
  close(static_cast<int>(socket_));
}

std::string free_port() {
  const int descriptor = bound_socket();
  const unsigned port = port_of(descriptor);
  close(descriptor);
  return std::to_string(port);
}

}  // namespace kova::testing
