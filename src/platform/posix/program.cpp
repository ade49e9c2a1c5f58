#include "platform/program.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "platform/clock.h"

namespace kova {

namespace {

constexpr std::size_t kReadSize = 4096;
constexpr int kEndPollMs = 5;

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int number() const { return number_; }
  void set(int number) { number_ = number; }
  void close() {
    if (number_ >= 0) ::close(std::exchange(number_, -1));
  }

 private:
  int number_;
};

bool open_pipe(Descriptor& read_end, Descriptor& write_end) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  read_end.set(ends[0]);
  write_end.set(ends[1]);
  return true;
}

/// A running program; ended and collected at destruction.
class Program {
 public:
  Program() = default;
  ~Program() {
    if (process_ < 0) return;
    ::kill(process_, SIGKILL);
    int status = 0;
    static_cast<void>(::waitpid(process_, &status, 0));
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  [[nodiscard]] bool start(const char* path);
  void feed(std::string_view input);
  [[nodiscard]] bool read_all(TextOut output, std::uint64_t deadline);
  [[nodiscard]] bool ended_well(std::uint64_t deadline);

 private:
  pid_t process_ = -1;
  Descriptor input_;
  Descriptor output_;
};

bool Program::start(const char* path) {
  Descriptor child_input;
  Descriptor child_output;
  if (!open_pipe(child_input, input_) || !open_pipe(output_, child_output)) return false;
  posix_spawn_file_actions_t actions;
  if (::posix_spawn_file_actions_init(&actions) != 0) return false;
  const std::array<char*, 2> arguments{const_cast<char*>(path), nullptr};
  const bool started =
      ::posix_spawn_file_actions_adddup2(&actions, child_input.number(), STDIN_FILENO) == 0 &&
      ::posix_spawn_file_actions_adddup2(&actions, child_output.number(), STDOUT_FILENO) == 0 &&
      ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0 &&
      ::posix_spawn(&process_, path, &actions, nullptr, arguments.data(), ::environ) == 0;
  ::posix_spawn_file_actions_destroy(&actions);
  if (!started) process_ = -1;
  return started;
}

void Program::feed(std::string_view input) {
  // The input fits an empty pipe, so this write does not block.
  static_cast<void>(::write(input_.number(), input.data(), input.size()) > 0);
  input_.close();
}

int milliseconds_until(std::uint64_t deadline) {
  const std::uint64_t now = tick_ms();
  return now < deadline ? static_cast<int>(deadline - now) : 0;
}

bool Program::read_all(TextOut output, std::uint64_t deadline) {
  for (;;) {
    pollfd waited{.fd = output_.number(), .events = POLLIN, .revents = 0};
    const int ready = ::poll(&waited, 1, milliseconds_until(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char bytes[kReadSize];
    const ssize_t got = ::read(output_.number(), bytes, sizeof bytes);
    if (got < 0) return false;
    if (got == 0) return true;
    if (!output.append({bytes, static_cast<std::size_t>(got)})) return false;
  }
}

// Called once the output has ended: the process ends soon.
bool Program::ended_well(std::uint64_t deadline) {
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(process_, &status, WNOHANG);
    if (ended == process_) {
      process_ = -1;
      return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    if (ended < 0 || milliseconds_until(deadline) == 0) return false;
    static_cast<void>(::poll(nullptr, 0, kEndPollMs));
  }
}

}  // namespace

bool ask_program(const char* path, std::string_view input, TextOut output,
                 std::uint32_t timeout_ms) {
  const std::uint64_t deadline = tick_ms() + timeout_ms;
  Program program;
  if (!program.start(path)) return false;
  program.feed(input);
  return program.read_all(output, deadline) && program.ended_well(deadline);
}

int become_program(const char* path, const char* first, const char* second) {
  const std::array<char*, 4> arguments{const_cast<char*>(path), const_cast<char*>(first),
                                       const_cast<char*>(second), nullptr};
  ::execv(path, arguments.data());
  return -1;
}

}  // namespace kova
