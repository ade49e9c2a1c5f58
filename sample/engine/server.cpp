#include "engine/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

namespace kova::sample {

namespace {

constexpr int kBacklog = 128;
// The pause after the system had no room for another client.
constexpr useconds_t kShortageUs = 20'000;

[[noreturn]] void fail_with_errno(const std::string& what) {
  throw Failure(what + ": " + std::strerror(errno));
}

}  // namespace

Server::Server(const Options& options, const Users& users)
    : options_(options),
      log_(options.log),
      databases_(options.data),
      settings_{.users = users,
                .databases = databases_,
                .log = log_,
                .stopping = stopping_,
                .timeout_ms = options.timeout_seconds * 1000} {}

Server::~Server() {
  for (const int descriptor : {listener_, signals_, ended_}) {
    if (descriptor >= 0) ::close(descriptor);
  }
}

void Server::listen() {
  if (!databases_.readable()) fail_with_errno("cannot read " + options_.data);
  open_descriptors();
  bind_listener();
}

void Server::open_descriptors() {
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  if (::pthread_sigmask(SIG_BLOCK, &stops, nullptr) != 0) fail_with_errno("signals");
  signals_ = ::signalfd(-1, &stops, SFD_CLOEXEC);
  ended_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (signals_ < 0 || ended_ < 0 || listener_ < 0) fail_with_errno("cannot listen");
}

void Server::bind_listener() {
  const int on = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(options_.port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_, generic, size) != 0 || ::listen(listener_, kBacklog) != 0 ||
      ::getsockname(listener_, generic, &size) != 0) {
    fail_with_errno("cannot listen on 127.0.0.1:" + std::to_string(options_.port));
  }
  port_ = ntohs(address.sin_port);
}

void Server::run() {
  pollfd entries[] = {{.fd = signals_, .events = POLLIN, .revents = 0},
                      {.fd = listener_, .events = POLLIN, .revents = 0},
                      {.fd = ended_, .events = POLLIN, .revents = 0}};
  while (entries[0].revents == 0) {
    if (::poll(entries, std::size(entries), -1) < 0) continue;
    reap();
    if (entries[1].revents != 0) accept_client();
  }
  signalfd_siginfo taken{};
  static_cast<void>(::read(signals_, &taken, sizeof taken) == sizeof taken);
  stop_clients();
}

void Server::accept_client() {
  const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (socket < 0) {
    // Out of descriptors or memory: the client waits in the queue, and so does this loop.
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      ::usleep(kShortageUs);
    }
    return;
  }
  const std::uint64_t number = ++accepted_;
  if (connections_.size() >= options_.connections) {
    log_.event(number, "refused: too many connections");
    ::close(socket);
    return;
  }
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Connection& connection = connections_.emplace_back();
  connection.socket = socket;
  connection.number = number;
  try {
    connection.thread = std::thread(&Server::serve, this, std::ref(connection));
  } catch (const std::system_error&) {
    log_.event(number, "refused: no thread to serve it");
    ::close(socket);
    connections_.pop_back();
  }
}

void Server::serve(Connection& connection) {
  ::pthread_setname_np(::pthread_self(), "client");
  {
    Client client(connection.socket, connection.number, settings_);
    client.serve();
  }
  // Closed only after the join: until then the number must not become another client's.
  ::shutdown(connection.socket, SHUT_RDWR);
  connection.done.store(true, std::memory_order_release);
  const std::uint64_t one = 1;
  static_cast<void>(::write(ended_, &one, sizeof one) == sizeof one);
}

void Server::reap() {
  std::uint64_t count = 0;
  static_cast<void>(::read(ended_, &count, sizeof count) == sizeof count);
  for (auto entry = connections_.begin(); entry != connections_.end();) {
    if (!entry->done.load(std::memory_order_acquire)) {
      ++entry;
      continue;
    }
    entry->thread.join();
    ::close(entry->socket);
    entry = connections_.erase(entry);
  }
}

void Server::stop_clients() {
  stopping_ = true;
  for (const Connection& connection : connections_) ::shutdown(connection.socket, SHUT_RDWR);
  for (Connection& connection : connections_) {
    connection.thread.join();
    ::close(connection.socket);
  }
  connections_.clear();
}

}  // namespace kova::sample
