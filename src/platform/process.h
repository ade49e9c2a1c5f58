// Child processes of this executable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kova {

/// The exit code of a process that a cancel has ended.
inline constexpr std::uint32_t kCancelledExitCode = 1223;

/// The capacity that this executable's own path must fit, with its terminator.
inline constexpr std::size_t kOwnPathCapacity = 260;

/// The number by which the system knows this process.
[[nodiscard]] std::uint32_t own_process_id();

/// A running copy of this executable with pipes on its standard input and output and this
/// process's standard error; it inherits nothing else. It ends with this process, however that
/// ends. Between `start` and `collect` one thread may feed it while another reads it and a third
/// one terminates it or waits for it; they see to it that none is in here when it is collected.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Starts the executable with one argument, or with none for null; false when it does not run.
  /// The calling thread must outlive the child.
  [[nodiscard]] bool start(const char* argument);

  /// Writes everything to the child's standard input; false when the child has gone, and what it
  /// did not take is dropped.
  bool write_input(std::string_view bytes);
  void close_input();
  /// Reads what is there of the child's output, at most `size` bytes, waiting until there is
  /// something; 0 at its end, after an error, and once the child has ended and left nothing.
  [[nodiscard]] std::size_t read_output(char* data, std::size_t size);

  /// Ends the child at once; `collect` then answers `exit_code`, unless it had ended before. Does
  /// nothing without a child.
  void terminate(std::uint32_t exit_code);

  /// Waits until the child has ended; it may still be given to `terminate`, without effect.
  void wait();
  /// Waits at most so long; true when the child has ended.
  [[nodiscard]] bool wait_within(std::uint32_t milliseconds);
  /// Releases an ended child, its pipes included, and answers its exit code. A child that a signal
  /// has ended answers 128 plus the signal's number, one whose code cannot be had 1.
  std::uint32_t collect();
  /// Releases a child that may still run.
  void abandon();

 private:
  std::intptr_t process_ = -1;
  std::intptr_t guard_ = -1;  ///< Windows: the job that ends it; Linux: what tells its end
  std::intptr_t input_ = -1;
  std::intptr_t output_ = -1;
  std::optional<std::uint32_t> terminated_with_;
};

}  // namespace kova
