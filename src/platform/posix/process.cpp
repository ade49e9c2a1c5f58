#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iterator>
#include <utility>

#include "platform/clock.h"
#include "platform/own_path.h"

namespace kova {

namespace {

constexpr int kSignalExitBase = 128;

int descriptor_of(std::intptr_t handle) {
  return static_cast<int>(handle);
}

void close_descriptor(std::intptr_t& handle) {
  if (handle >= 0) ::close(descriptor_of(handle));
  handle = -1;
}

/// The two ends of a pipe; what is not handed on is closed.
struct Pipe {
  std::intptr_t read_end = -1;
  std::intptr_t write_end = -1;

  Pipe() = default;
  ~Pipe() {
    close_descriptor(read_end);
    close_descriptor(write_end);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  [[nodiscard]] bool open() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return false;
    read_end = ends[0];
    write_end = ends[1];
    return true;
  }
};

// Runs between vfork and exec, in the parent's memory: system calls only. Returns when a
// step fails.
void become_child(const char* path, char* const* arguments, int input, int output, pid_t parent) {
  // A parent that ended before the signal was asked for sends none.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) return;
  // Both lie above the standard streams, of which prepare_standard_streams lets none be missing.
  if (::dup2(input, STDIN_FILENO) < 0 || ::dup2(output, STDOUT_FILENO) < 0) return;
  // Covers what this process itself was given beside its standard streams. Where the system does
  // not know the call (before Linux 5.11) there is no child rather than one that holds more.
  if (::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0) return;
  // What is ignored stays so across exec.
  std::signal(SIGPIPE, SIG_DFL);
  ::execve(path, arguments, environ);
}

// Answers the child, or -1. A function of its own, so that no other variable lives across vfork.
pid_t spawn(const char* path, char* const* arguments, int input, int output) {
  const pid_t parent = ::getpid();
  // The child writes it in this memory; this thread goes on once the child has ended or runs.
  volatile bool failed = false;
  const pid_t child = ::vfork();
  if (child == 0) {
    become_child(path, arguments, input, output, parent);
    failed = true;
    ::_exit(1);
  }
  if (child < 0 || !failed) return child;
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return -1;
}

}  // namespace

std::uint32_t own_process_id() {
  return static_cast<std::uint32_t>(::getpid());
}

ChildProcess::~ChildProcess() {
  abandon();
}

bool ChildProcess::start(const char* argument) {
  char path[kOwnPathCapacity];
  Pipe input;
  Pipe output;
  if (!own_path(path) || !input.open() || !output.open()) return false;
  const char* const arguments[] = {path, argument, nullptr};
  const pid_t child = spawn(path, const_cast<char* const*>(arguments),
                            descriptor_of(input.read_end), descriptor_of(output.write_end));
  if (child < 0) return false;
  process_ = child;
  guard_ = ::syscall(SYS_pidfd_open, child, 0);
  input_ = std::exchange(input.write_end, -1);
  output_ = std::exchange(output.read_end, -1);
  return true;
}

bool ChildProcess::write_input(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor_of(input_), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void ChildProcess::close_input() {
  close_descriptor(input_);
}

// A process that the child has left behind keeps the pipe open, so the child's own end is waited
// for too; without a descriptor for that, the pipe's alone.
std::size_t ChildProcess::read_output(char* data, std::size_t size) {
  const auto event = [](std::intptr_t handle) {
    return pollfd{.fd = descriptor_of(handle), .events = POLLIN, .revents = 0};
  };
  for (bool ended = false;;) {
    pollfd events[] = {event(output_), event(guard_)};
    // The output has been looked at before the child's end, so it is looked at once more after it.
    const int ready = ended ? ::poll(events, 1, 0) : ::poll(events, std::size(events), -1);
    if (ready == 0) return 0;
    if (ready > 0) {
      ended = events[0].revents == 0;
      if (ended) continue;
      const ssize_t got = ::read(events[0].fd, data, size);
      if (got >= 0) return static_cast<std::size_t>(got);
    }
    if (errno != EINTR) return 0;
  }
}

void ChildProcess::terminate(std::uint32_t exit_code) {
  // To the system, no child's number is every process there is.
  if (process_ < 0) return;
  terminated_with_ = exit_code;
  ::kill(static_cast<pid_t>(process_), SIGKILL);
}

void ChildProcess::wait() {
  siginfo_t info{};
  while (::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
}

// Asks again and again: what waits for a process with a time limit takes a descriptor, of which
// there may be none left.
bool ChildProcess::wait_within(std::uint32_t milliseconds) {
  for (const std::uint64_t until = tick_ms() + milliseconds;;) {
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOWAIT | WNOHANG);
    if (info.si_pid != 0) return true;
    if (tick_ms() >= until) return false;
    ::poll(nullptr, 0, 1);
  }
}

void ChildProcess::abandon() {
  close_descriptor(input_);
  close_descriptor(output_);
  close_descriptor(guard_);
  // One that has ended would otherwise stay listed for as long as this process lives.
  if (process_ >= 0) ::waitpid(static_cast<pid_t>(process_), nullptr, WNOHANG);
  process_ = -1;
  terminated_with_.reset();
}

std::uint32_t ChildProcess::collect() {
  int status = 0;
  pid_t collected = 0;
  do {
    collected = ::waitpid(static_cast<pid_t>(process_), &status, 0);
  } while (collected < 0 && errno == EINTR);
  process_ = -1;
  const std::optional<std::uint32_t> terminated_with = terminated_with_;
  abandon();
  if (collected < 0) return 1;
  if (WIFEXITED(status)) return static_cast<std::uint32_t>(WEXITSTATUS(status));
  // Exit codes above 255 exist here only by agreement: the killer's word stands for the signal.
  if (terminated_with && WTERMSIG(status) == SIGKILL) return *terminated_with;
  return static_cast<std::uint32_t>(kSignalExitBase + WTERMSIG(status));
}

}  // namespace kova
