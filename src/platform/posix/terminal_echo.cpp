#include "platform/terminal_echo.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace kova {

EchoOff::EchoOff() {
  const int terminal = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  termios settings{};
  if (terminal < 0 || ::tcgetattr(terminal, &settings) != 0) {
    if (terminal >= 0) ::close(terminal);
    return;
  }
  terminal_ = terminal;
  former_ = settings.c_lflag;
  // The end of the line is still shown, so that the next prompt begins a line.
  settings.c_lflag = (settings.c_lflag & ~static_cast<tcflag_t>(ECHO)) | ECHONL;
  static_cast<void>(::tcsetattr(terminal, TCSAFLUSH, &settings));
}

EchoOff::~EchoOff() {
  if (terminal_ < 0) return;
  const int terminal = static_cast<int>(terminal_);
  termios settings{};
  if (::tcgetattr(terminal, &settings) == 0) {
    settings.c_lflag = former_;
    static_cast<void>(::tcsetattr(terminal, TCSAFLUSH, &settings));
  }
  ::close(terminal);
}

}  // namespace kova
