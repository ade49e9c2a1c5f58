#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "spawn.h"

namespace kova_bench {

namespace {

void close_descriptor(std::intptr_t& descriptor) {
  if (descriptor >= 0) ::close(static_cast<int>(descriptor));
  descriptor = -1;
}

// A function of its own, so that no other variable lives across vfork.
pid_t spawn(const char* path, const char* argument, int input, int output) {
  char* arguments[] = {const_cast<char*>(path), const_cast<char*>(argument), nullptr};
  const pid_t child = ::vfork();
  if (child == 0) {
    if (::dup2(input, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0) {
      ::execve(path, arguments, environ);
    }
    ::_exit(127);
  }
  return child;
}

}  // namespace

Spawned::~Spawned() {
  close_descriptor(input_);
  close_descriptor(output_);
  if (process_ >= 0) static_cast<void>(wait());
}

bool Spawned::start(const char* path, const char* argument) {
  std::signal(SIGPIPE, SIG_IGN);
  int to_child[2];
  int from_child[2];
  if (::pipe2(to_child, O_CLOEXEC) != 0 || ::pipe2(from_child, O_CLOEXEC) != 0) return false;
  process_ = spawn(path, argument, to_child[0], from_child[1]);
  ::close(to_child[0]);
  ::close(from_child[1]);
  input_ = to_child[1];
  output_ = from_child[0];
  return process_ > 0;
}

bool Spawned::write(std::string_view bytes) {
  return ::write(static_cast<int>(input_), bytes.data(), bytes.size()) ==
         static_cast<ssize_t>(bytes.size());
}

std::size_t Spawned::read_some(char* data, std::size_t size) {
  const ssize_t got = ::read(static_cast<int>(output_), data, size);
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void Spawned::close_input() {
  close_descriptor(input_);
}

bool Spawned::wait() {
  int status = 0;
  const pid_t ended = ::waitpid(static_cast<pid_t>(process_), &status, 0);
  process_ = -1;
  return ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::uint64_t Spawned::resident_bytes() const {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%ld/status", static_cast<long>(process_));
  std::FILE* const status = std::fopen(path, "r");
  if (status == nullptr) return 0;
  char line[256];
  unsigned long long kilobytes = 0;
  while (std::fgets(line, sizeof line, status) != nullptr) {
    if (std::sscanf(line, "VmRSS: %llu", &kilobytes) == 1) break;
  }
  std::fclose(status);
  return kilobytes * 1024;
}

}  // namespace kova_bench
