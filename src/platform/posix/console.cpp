#include "platform/console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace kova {

namespace {

/// Whether the transfer that failed is to be retried. Another process that shares the stream may
/// have made it non-blocking; this waits for it then.
bool can_retry(int descriptor, short event) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN) return false;
  pollfd entry{.fd = descriptor, .events = event, .revents = 0};
  return ::poll(&entry, 1, -1) > 0 || errno == EINTR;
}

void write_all(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && can_retry(descriptor, POLLOUT)) continue;
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

void prepare_standard_streams() {
  // The next pipe would take the number of a missing standard stream, and diagnostics would go into
  // it. open() takes the lowest free number: that of the missing stream, as those before it are
  // open.
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (::fcntl(stream, F_GETFD) < 0) static_cast<void>(::open("/dev/null", O_RDWR | O_CLOEXEC));
  }
  // A write that cannot be done fails and does not end the process: the reader has gone, or the
  // file has reached its largest size.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  // When this process was started to ignore it, the kernel would collect our ended children.
  std::signal(SIGCHLD, SIG_DFL);
}

std::size_t read_stdin(char* data, std::size_t size) {
  for (;;) {
    const ssize_t got = ::read(STDIN_FILENO, data, size);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (!can_retry(STDIN_FILENO, POLLIN)) return 0;
  }
}

void write_stdout(std::string_view bytes) {
  write_all(STDOUT_FILENO, bytes);
}

void write_stderr(std::string_view text) {
  write_all(STDERR_FILENO, text);
}

}  // namespace kova
