// The listener and one thread for each client.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <string>
#include <thread>

#include "engine/client.h"
#include "engine/databases.h"
#include "engine/log.h"
#include "engine/options.h"
#include "engine/users.h"

namespace kova::sample {

/// Serves clients on 127.0.0.1, one thread each, until SIGTERM or SIGINT.
class Server {
 public:
  Server(const Options& options, const Users& users);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens. From here on SIGTERM and SIGINT wait for `run`.
  void listen();
  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// Returns after a signal, with no client and no thread left.
  void run();

 private:
  struct Connection {
    int socket;
    std::uint64_t number;
    std::thread thread;
    std::atomic<bool> done = false;
  };

  void open_descriptors();
  void bind_listener();
  void accept_client();
  void serve(Connection& connection);
  void reap();
  void stop_clients();

  const Options& options_;
  Log log_;
  Databases databases_;
  std::atomic<bool> stopping_ = false;
  Client::Settings settings_;
  std::list<Connection> connections_;
  std::uint64_t accepted_ = 0;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  int signals_ = -1;
  int ended_ = -1;
};

}  // namespace kova::sample
