#include "platform/console.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace kova {

namespace {

void write_all(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

void prepare_standard_streams() {
  // A missing standard stream would be filled by the next pipe, and diagnostics sent into it.
  int descriptor = 0;
  do {
    descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) ::close(descriptor);
  std::signal(SIGPIPE, SIG_IGN);
}

std::size_t read_stdin(char* data, std::size_t size) {
  for (;;) {
    const ssize_t got = ::read(STDIN_FILENO, data, size);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) return 0;
  }
}

void write_stdout(std::string_view bytes) {
  write_all(STDOUT_FILENO, bytes);
}

void write_stderr(std::string_view text) {
  write_all(STDERR_FILENO, text);
}

}  // namespace kova
