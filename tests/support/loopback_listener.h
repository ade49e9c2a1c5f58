// A listening TCP socket on 127.0.0.1, for what only asks whether somebody listens.
#pragma once

#include <cstdint>
#include <string>

namespace kova::testing {

/// Listens on a free port while it lives; connections wait in its queue until they are asked for.
class LoopbackListener {
 public:
  LoopbackListener();
  ~LoopbackListener();
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  [[nodiscard]] std::string port() const { return std::to_string(port_); }
  /// Takes one waiting connection and closes it; whether there was one.
  [[nodiscard]] bool had_connection();
  /// Takes one waiting connection; whether there was one that its client has closed, or closes
  /// within some seconds.
  [[nodiscard]] bool had_closed_connection();

 private:
  std::intptr_t socket_;
  unsigned port_;
};

/// A port of 127.0.0.1 on which nobody listens while it lives: it is taken.
class RefusedPort {
 public:
  RefusedPort();
  ~RefusedPort();
  RefusedPort(const RefusedPort&) = delete;
  RefusedPort& operator=(const RefusedPort&) = delete;

  [[nodiscard]] std::string port() const { return std::to_string(port_); }

 private:
  std::intptr_t socket_;
  unsigned port_;
};

/// A port of 127.0.0.1 that was free a moment ago. Somebody else may take it first.
[[nodiscard]] std::string free_port();

}  // namespace kova::testing
