// One connection from its first frame to its last.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "engine/channel.h"
#include "engine/client_watch.h"
#include "engine/log.h"
#include "engine/session.h"

namespace kova::sample {

/// Serves one client on the thread that calls `serve`. Borrows the socket.
class Client {
 public:
  struct Settings {
    const Users& users;
    Databases& databases;
    const Log& log;
    const std::atomic<bool>& stopping;
    std::uint32_t timeout_ms;
  };

  Client(int socket, std::uint64_t number, const Settings& settings);

  /// Returns when the client has gone, was refused, or the engine stops.
  void serve();

 private:
  void reply_to_all();
  [[nodiscard]] bool receive(std::uint64_t begin_by, wire::Type& type);
  [[nodiscard]] bool greet();
  [[nodiscard]] bool reply_to(wire::Type type);
  [[nodiscard]] bool exec(wire::PayloadReader& request);
  [[nodiscard]] bool fetch(wire::PayloadReader& request);
  void release(wire::PayloadReader& request);
  void refuse(std::string_view reason);
  template <typename Work>
  [[nodiscard]] std::string attempt(Query& query, const Work& work);
  void log(std::string_view what, std::string_view status, std::string_view message,
           std::uint64_t started);

  const Settings& settings_;
  std::uint64_t number_;
  Channel channel_;
  ClientWatch client_watch_;
  Session session_;
  std::map<std::uint32_t, Query> objects_;
  std::uint64_t login_by_;  ///< a tick count
};

}  // namespace kova::sample
