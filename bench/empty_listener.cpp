// The floor of HTTP: whatever comes is answered with one fixed result, and connections stay open.
//
//   empty-listener PORT     on the loopback, until a signal ends it
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kAnswer =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 36\r\n\r\n"
    R"({"jsonrpc":"2.0","id":1,"result":{}})";
constexpr std::size_t kReadSize = 65536;

/// A socket that listens; negative after a failure.
int listen_on(std::uint16_t port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (listener < 0 ||
      ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, SOMAXCONN) != 0) {
    return -1;
  }
  return listener;
}

/// A request is small and sent in one piece, so that one read takes all of it. False when the
/// client has gone.
bool answer(int connection) {
  static char request[kReadSize];
  if (::read(connection, request, sizeof request) <= 0) return false;
  return ::write(connection, kAnswer.data(), kAnswer.size()) ==
         static_cast<ssize_t>(kAnswer.size());
}

void accept_one(std::vector<pollfd>& sockets) {
  const int connection = ::accept4(sockets.front().fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (connection < 0) return;
  const int on = 1;
  ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  sockets.push_back({connection, POLLIN, 0});
}

/// The first socket is the one that listens. Returns after a failure of the system.
void serve(std::vector<pollfd> sockets) {
  while (::poll(sockets.data(), sockets.size(), -1) > 0) {
    for (std::size_t i = sockets.size() - 1; i > 0; --i) {
      if (sockets[i].revents == 0 || answer(sockets[i].fd)) continue;
      ::close(sockets[i].fd);
      sockets.erase(sockets.begin() + static_cast<std::ptrdiff_t>(i));
    }
    if (sockets.front().revents != 0) accept_one(sockets);
  }
}

}  // namespace

int main(int count, char** arguments) {
  const long port = count == 2 ? std::strtol(arguments[1], nullptr, 10) : 0;
  if (port < 1 || port > UINT16_MAX) {
    std::fprintf(stderr, "usage: %s PORT\n", arguments[0]);
    return 2;
  }
  const int listener = listen_on(static_cast<std::uint16_t>(port));
  if (listener < 0) {
    std::perror("empty-listener");
    return 1;
  }
  serve({{listener, POLLIN, 0}});
  return 1;
}
