// The optional log of statements on standard error.
#pragma once

#include <cstdint>
#include <string_view>

namespace kova::sample {

/// Each line is written in one piece. Any thread.
class Log {
 public:
  explicit Log(bool on) : on_(on) {}

  [[nodiscard]] bool on() const { return on_; }
  /// "session N: WHAT -> OUTCOME (T ms)".
  void statement(std::uint64_t session, std::string_view what, std::string_view outcome,
                 std::uint64_t milliseconds) const;
  /// "session N: WHAT".
  void event(std::uint64_t session, std::string_view what) const;

 private:
  bool on_;
};

}  // namespace kova::sample
