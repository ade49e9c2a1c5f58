// The optional log of statements on standard error.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/console.h"

namespace kova::sample {

/// Writes each line in one piece. Any thread.
class Log {
 public:
  explicit Log(bool on) : on_(on) {}

  [[nodiscard]] bool on() const { return on_; }

  /// "session N: WHAT".
  void event(std::uint64_t session, std::string_view what) const {
    if (!on_) return;
    write_stderr("session " + std::to_string(session) + ": " + std::string(what) + "\n");
  }

  /// "session N: WHAT -> OUTCOME (T ms)".
  void statement(std::uint64_t session, std::string_view what, std::string_view outcome,
                 std::uint64_t milliseconds) const {
    event(session, std::string(what) + " -> " + std::string(outcome) + " (" +
                       std::to_string(milliseconds) + " ms)");
  }

 private:
  bool on_;
};

}  // namespace kova::sample
