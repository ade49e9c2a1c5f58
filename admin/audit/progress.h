// How far a long run is, on a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

namespace kova::admin {

/// Shows on standard error, when that is a terminal, what share of the files was read and how fast;
/// silent for what takes less than half a second. The line is removed at destruction.
class Progress {
 public:
  /// Of files whose sizes are unknown only the bytes are shown, nothing if it is not wanted.
  explicit Progress(std::span<const std::string> files, bool is_wanted = true);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Removes the line; it comes again with the next bytes.
  void clear();
  /// Bytes that were read since the last call.
  void add(std::uint64_t bytes) {
    done_ += bytes;
    if (is_shown_) show();
  }

 private:
  using Clock = std::chrono::steady_clock;

  void show();

  bool is_shown_;
  bool has_line_ = false;
  std::uint64_t total_ = 0;
  std::uint64_t done_ = 0;
  Clock::time_point start_ = Clock::now();
  Clock::time_point next_;
};

/// The line for so many bytes of a total (0: unknown) in so many seconds.
[[nodiscard]] std::string progress_line(std::uint64_t done, std::uint64_t total, double seconds);

}  // namespace kova::admin
