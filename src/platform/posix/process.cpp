#include "platform/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <utility>

#include "platform/clock.h"
#include "platform/own_path.h"
#include "platform/posix/file_identity.h"

namespace kova {

namespace {

/// A POSIX exit code for "ended by a signal" is this plus the signal's number.
constexpr int kSignalExitBase = 128;

/// What a pipe holds, and the most that one without privileges may hold, as the kernel has it.
constexpr std::size_t kPipeSize = 65536;
constexpr std::size_t kLargePipe = 1048576;

int descriptor_of(std::intptr_t handle) {
  return static_cast<int>(handle);
}

void close_descriptor(std::intptr_t& handle) {
  if (handle >= 0) ::close(descriptor_of(handle));
  handle = -1;
}

/// The two ends of a pipe; an end that is not handed on is closed.
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

// Returns the number of a descriptor in /proc/self/fd, or -1 for "." and "..".
int descriptor_named(const char* name) {
  int number = 0;
  for (; *name >= '0' && *name <= '9'; ++name) number = number * 10 + (*name - '0');
  return *name == '\0' ? number : -1;
}

// What close_range does, for systems that lack it (before Linux 5.11) or forbid it. Called between
// vfork and exec, so the folder is read by system calls. `spare` is given up for the folder's own
// descriptor, since there may be no other one left.
bool keep_standard_streams_only(int spare) {
  ::close(spare);
  const int folder = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return false;
  alignas(dirent64) char entries[1024];
  for (;;) {
    const ssize_t size = ::getdents64(folder, entries, sizeof entries);
    if (size <= 0) return size == 0;
    for (ssize_t at = 0; at < size;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
      const int descriptor = descriptor_named(entry->d_name);
      if (descriptor > STDERR_FILENO) ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
      at += entry->d_reclen;
    }
  }
}

// Runs between vfork and exec, in the parent's memory and with a copy of its descriptors: system
// calls only. Returns when a step fails.
//
//   parent thread     vfork ......... stands still ............ goes on
//   child                  prctl, dup2, close_range, execve ↑
//                                    (or _exit when one fails) ↑
void become_child(char* const* arguments, int input, int output, pid_t parent) {
  // A parent that ended before the signal was asked for sends none.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) return;
  // Both lie above the standard streams, of which prepare_standard_streams lets none be missing.
  if (::dup2(input, STDIN_FILENO) < 0 || ::dup2(output, STDOUT_FILENO) < 0) return;
  // Covers what this process itself was given beside its standard streams.
  if (::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0 &&
      !keep_standard_streams_only(input)) {
    return;
  }
  // An ignored signal stays ignored across exec.
  std::signal(SIGPIPE, SIG_DFL);
  std::signal(SIGXFSZ, SIG_DFL);
  ::execve(kRunningExecutable, arguments, environ);
}

// Returns the child, or -1. A function of its own, so that no other variable lives across vfork.
pid_t spawn(char* const* arguments, int input, int output) {
  const pid_t parent = ::getpid();
  // The child writes it in this memory; this thread goes on once the child has ended or runs.
  volatile bool failed = false;
  const pid_t child = ::vfork();
  if (child == 0) {
    become_child(arguments, input, output, parent);
    failed = true;
    ::_exit(1);
  }
  if (child < 0 || !failed) return child;
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return -1;
}

// Only this executable starts itself by this path, so the kernel's record of it tells who did.
bool is_own_child() {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel gives every entry as a number.
  const auto* const started_as = reinterpret_cast<const char*>(::getauxval(AT_EXECFN));
  return started_as != nullptr && std::strcmp(started_as, kRunningExecutable) == 0;
}

// The parent holds the other end of this process's output for as long as it lives.
bool has_parent() {
  pollfd output{.fd = STDOUT_FILENO, .events = 0, .revents = 0};
  return ::poll(&output, 1, 0) <= 0 || (output.revents & POLLERR) == 0;
}

}  // namespace

// The kernel forgets the signal when it executes a file with capabilities. The name would be that
// of the path by which the process was started.
void prepare_process() {
  if (!is_own_child()) return;
  ::prctl(PR_SET_NAME, program_invocation_short_name);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // A parent that ended before the signal was asked for sends none.
  if (!has_parent()) ::_exit(1);
}

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
  const pid_t child = spawn(const_cast<char* const*>(arguments), descriptor_of(input.read_end),
                            descriptor_of(output.write_end));
  if (child < 0) return false;
  process_ = child;
  guard_ = ::syscall(SYS_pidfd_open, child, 0);
  input_ = std::exchange(input.write_end, -1);
  output_ = std::exchange(output.read_end, -1);
  return true;
}

// A pipe that holds all of a large input is filled while the child is being loaded. One that cannot
// be enlarged does as well, in turns with the child.
bool ChildProcess::write_input(std::string_view bytes) {
  if (bytes.size() > kPipeSize) {
    ::fcntl(descriptor_of(input_), F_SETPIPE_SZ,
            static_cast<int>(std::min(bytes.size(), kLargePipe)));
  }
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

// A process that the child has left behind keeps the pipe open, so this also waits for the end of
// the child itself; without a descriptor for that, for the end of the pipe alone.
std::size_t ChildProcess::read_output(char* data, std::size_t size) {
  const auto event = [](std::intptr_t handle) {
    return pollfd{.fd = descriptor_of(handle), .events = POLLIN, .revents = 0};
  };
  for (bool ended = false;;) {
    pollfd events[] = {event(output_), event(guard_)};
    // Output may have come between the look at the pipe and the look at the child, so the pipe is
    // read once more after the child's end.
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
  // For kill(), -1 means every process.
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

// Polls: a wait with a time limit needs a descriptor, and there may be none left.
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
  // An ended child would otherwise stay a zombie for as long as this process lives.
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
  // POSIX exit codes have 8 bits: after our own SIGKILL report the code given to terminate().
  if (terminated_with && WTERMSIG(status) == SIGKILL) return *terminated_with;
  return static_cast<std::uint32_t>(kSignalExitBase + WTERMSIG(status));
}

}  // namespace kova
