// One connection from its first frame to its last.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string_view>

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
  void answer_all();
  [[nodiscard]] bool greet();
  [[nodiscard]] bool answer(wire::Type type);
  [[nodiscard]] bool answer_exec(wire::PayloadReader& request);
  [[nodiscard]] bool answer_fetch(wire::PayloadReader& request);
  [[nodiscard]] bool release(wire::PayloadReader& request);
  [[nodiscard]] bool refuse(std::string_view reason);
  void execute(std::string_view statement, Query& query, wire::FrameWriter& reply);
  [[nodiscard]] std::string_view outcome_words(bool success, std::string_view status);

  const Settings& settings_;
  std::uint64_t number_;
  Channel channel_;
  ClientWatch watch_;
  Session session_;
  std::map<std::uint32_t, Query> objects_;
  std::uint64_t login_by_;
};

}  // namespace kova::sample
