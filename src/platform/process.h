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

/// Called first thing in main. A process that ChildProcess has started ends with the one that
/// started it, also where the system forgets that on the way; it does not return when that one has
/// ended already. On Windows no error box of the system stops this process or its children.
void prepare_process();

/// The number by which the system knows this process.
[[nodiscard]] std::uint32_t own_process_id();

/// A running copy of the file that this process was started from, with pipes on its standard input
/// and output and this process's standard error; it inherits nothing else. It ends with this
/// process, however that ends.
///
///     ChildProcess child;
///     if (child.start("--tool-worker") && child.write_input(line)) child.close_input();
///     while ((got = child.read_output(buffer, sizeof buffer)) > 0) ...
///     child.wait(), child.collect();
///
/// Between `start` and `collect` one thread may write to it while another one reads and a third one
/// terminates it or waits for it; the caller ensures that none of them is in a function of the
/// object when `collect` is called.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Starts the executable with one argument, or with none for null; false when it does not run.
  /// The calling thread must outlive the child.
  [[nodiscard]] bool start(const char* argument);
  /// After a `start` that failed: whether the system refused to put the child into a job inside the
  /// job that this process runs in (Windows).
  [[nodiscard]] bool job_refused() const { return job_refused_; }

  /// Writes everything to the child's standard input; false when the child has ended, and the rest
  /// is dropped.
  bool write_input(std::string_view bytes);
  void close_input();
  /// Reads the next bytes of the child's output, at most `size`, and waits until there is at least
  /// one; 0 at its end, after an error, and once the child has ended and left nothing.
  [[nodiscard]] std::size_t read_output(char* data, std::size_t size);

  /// Ends the child at once; `collect` then returns `exit_code`, unless the child had ended before.
  /// Does nothing without a child.
  void terminate(std::uint32_t exit_code);

  /// Waits until the child has ended; `terminate` may still be called then, without effect.
  void wait();
  /// Waits for at most so many milliseconds; true when the child has ended.
  [[nodiscard]] bool wait_within(std::uint32_t milliseconds);
  /// Releases an ended child and its pipes, and returns its exit code: 128 plus the signal's number
  /// for a child that a signal has ended, 1 for one whose code cannot be had.
  std::uint32_t collect();
  /// Releases a child that may still run.
  void abandon();

 private:
  std::intptr_t process_ = -1;
  /// Windows: the job that ends the child with this process; Linux: the descriptor that becomes
  /// readable when the child ends.
  std::intptr_t guard_ = -1;
  std::intptr_t input_ = -1;
  std::intptr_t output_ = -1;
  std::optional<std::uint32_t> terminated_with_;
  bool job_refused_ = false;
};

}  // namespace kova
