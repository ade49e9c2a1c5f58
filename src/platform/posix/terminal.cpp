#include "platform/terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iterator>

namespace kova {

namespace {

/// The longest line that a terminal delivers, its end included.
constexpr std::size_t kTerminalLineLimit = 4096;

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGTERM};

/// The signal mask and the signal actions from before the terminal was opened.
sigset_t outer_mask;
struct sigaction outer_actions[std::size(kEndingSignals)];

int descriptor_of(std::intptr_t handle) {
  return static_cast<int>(handle);
}

void take_signal(int) {}

// The signals stay blocked except while a line is awaited, so that none is lost before the wait and
// none ends the process.
void hold_signals() {
  struct sigaction action {};
  action.sa_handler = take_signal;
  sigset_t held;
  sigemptyset(&held);
  for (std::size_t i = 0; i < std::size(kEndingSignals); ++i) {
    sigaddset(&held, kEndingSignals[i]);
    ::sigaction(kEndingSignals[i], &action, &outer_actions[i]);
  }
  ::sigprocmask(SIG_BLOCK, &held, &outer_mask);
}

// The mask comes first: a signal that is pending then runs take_signal, and does not end the
// process after its work is done.
void release_signals() {
  ::sigprocmask(SIG_SETMASK, &outer_mask, nullptr);
  for (std::size_t i = 0; i < std::size(kEndingSignals); ++i) {
    ::sigaction(kEndingSignals[i], &outer_actions[i], nullptr);
  }
}

bool set_local_mode(int descriptor, tcflag_t mode) {
  termios settings{};
  if (::tcgetattr(descriptor, &settings) != 0) return false;
  settings.c_lflag = mode;
  return ::tcsetattr(descriptor, TCSAFLUSH, &settings) == 0;
}

bool write_all(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

Terminal::~Terminal() {
  if (input_ < 0) return;
  if (is_changed_) {
    static_cast<void>(set_local_mode(descriptor_of(input_), former_input_mode_));
  }
  ::close(descriptor_of(input_));
  release_signals();
}

bool Terminal::open() {
  const int descriptor = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (descriptor < 0) return false;
  input_ = descriptor;
  output_ = descriptor;
  hold_signals();
  return true;
}

bool Terminal::write(std::string_view text) {
  return write_all(descriptor_of(output_), text);
}

void Terminal::drop_typed() {
  ::tcflush(descriptor_of(input_), TCIFLUSH);
}

// The end of the line is still shown, so that the next prompt begins a line.
bool Terminal::hide_typed() {
  termios settings{};
  if (::tcgetattr(descriptor_of(input_), &settings) != 0) return false;
  former_input_mode_ = settings.c_lflag;
  is_changed_ = true;
  return set_local_mode(descriptor_of(input_),
                        (settings.c_lflag & ~static_cast<tcflag_t>(ECHO)) | ECHONL);
}

bool Terminal::read_line(TextOut line) {
  pollfd entry{.fd = descriptor_of(input_), .events = POLLIN, .revents = 0};
  if (::ppoll(&entry, 1, nullptr, &outer_mask) != 1) return false;
  char text[kTerminalLineLimit];
  const ssize_t got = ::read(descriptor_of(input_), text, sizeof text);
  if (got <= 0 || text[got - 1] != '\n') return false;
  return line.copy({text, static_cast<std::size_t>(got) - 1});
}

unsigned Terminal::columns() const {
  winsize size{};
  return ::ioctl(descriptor_of(output_), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

bool stdout_takes_colours() {
  return ::isatty(STDOUT_FILENO) == 1;
}

bool write_all_to_stdout(std::string_view bytes) {
  return write_all(STDOUT_FILENO, bytes);
}

}  // namespace kova
