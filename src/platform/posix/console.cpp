#include "platform/console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace kova {

namespace {

/// Whether the transfer that failed is to be tried again. Whoever shares a stream with this process
/// may have made it non-blocking; it is waited for then.
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
  // A missing standard stream would be filled by the next pipe, and diagnostics sent into it. Every
  // one before it is there by then, so opening fills its place.
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (::fcntl(stream, F_GETFD) < 0) static_cast<void>(::open("/dev/null", O_RDWR | O_CLOEXEC));
  }
  std::signal(SIGPIPE, SIG_IGN);
  // Whoever starts this process may ignore it; the system would then take our ended children away.
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
