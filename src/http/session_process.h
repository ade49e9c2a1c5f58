// One client's server process, spoken to in lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "http/child_starter.h"
#include "platform/process.h"
#include "platform/thread.h"

namespace kova {

/// 64 lower-case hexadecimal characters and the terminator.
inline constexpr std::size_t kSessionIdCapacity = 65;
/// Bytes of a reply line, without its line feed and the carriage returns in it.
inline constexpr std::size_t kReplyLineLimit = 262144;

/// A server process and the pipes to it. `write` may be called by several threads, every other
/// function by one at a time; no thread may be in `write` or `read_line` when `finish` is called.
class SessionProcess {
 public:
  /// Draws a fresh id and starts the child; false when either fails.
  [[nodiscard]] bool start(ChildStarter& starter);
  [[nodiscard]] const char* id() const { return id_; }

  /// Writes a whole message, never mixed with another one; false when the child has ended.
  [[nodiscard]] bool write(std::string_view message);
  /// Reads one line without its line feed and carriage returns into a buffer of kReplyLineLimit
  /// bytes; what follows it stays for the next call. False for an empty line, a longer one, and at
  /// the end of output.
  [[nodiscard]] bool read_line(char* line, std::size_t& length);

  [[nodiscard]] bool has_ended();
  /// Ends the child at once; reads and writes under way return.
  void terminate();
  /// Collects a terminated child, waiting at most 2,000 ms, and forgets everything.
  void finish();

 private:
  /// The capacity of a pipe.
  static constexpr std::size_t kBlockSize = 65536;

  [[nodiscard]] bool draw_id();
  [[nodiscard]] bool fill_block();

  ChildProcess child_;
  Mutex writing_;
  char id_[kSessionIdCapacity] = {};
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  char block_[kBlockSize];
};

}  // namespace kova
