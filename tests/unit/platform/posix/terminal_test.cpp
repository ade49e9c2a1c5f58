// A terminal with someone at its keys: each case runs in a child process whose controlling terminal
// is a pseudo-terminal.
#include "platform/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

namespace kova {
namespace {

/// Seconds after which a child that hangs is ended.
constexpr unsigned kChildSeconds = 120;

/// A child process on a terminal of its own; what it returns is its exit code.
class OnTerminal {
 public:
  explicit OnTerminal(int (*program)()) {
    process_ = forkpty(&keys_, nullptr, nullptr, nullptr);
    if (process_ == 0) {
      alarm(kChildSeconds);
      _exit(program());
    }
  }
  ~OnTerminal() {
    if (keys_ >= 0) close(keys_);
    if (process_ > 0) static_cast<void>(code());
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  void type(std::string_view keys) const {
    EXPECT_EQ(write(keys_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  /// Reads until the text has been shown, and returns everything up to there.
  std::string wait_for(std::string_view text) {
    while (shown_.find(text) == std::string::npos) {
      char bytes[256];
      const ssize_t got = read(keys_, bytes, sizeof bytes);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      shown_.append(bytes, static_cast<std::size_t>(got));
    }
    return shown_;
  }
  void go_away() {
    close(keys_);
    keys_ = -1;
  }
  /// The exit code; that of a signal is negative.
  int code() {
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  void send(int number) const { kill(process_, number); }

 private:
  int keys_ = -1;
  pid_t process_ = -1;
  std::string shown_;
};

int read_two_lines() {
  Terminal terminal;
  char first[16];
  char second[8];
  if (!terminal.open() || !terminal.write("first? ") || !terminal.read_line(first)) return 1;
  if (!terminal.write("second? ") || !terminal.read_line(second)) return 2;
  return terminal.write(std::string("[") + first + "|" + second + "]") ? 0 : 3;
}

TEST(TerminalPosix, LinesAreReadWithoutTheirEnds) {
  OnTerminal child(read_two_lines);
  child.wait_for("first? ");
  child.type("gr\xC3\xBC\xC3\x9F \r");
  child.wait_for("second? ");
  child.type("\r");
  EXPECT_NE(child.wait_for("]").find("[gr\xC3\xBC\xC3\x9F |]"), std::string::npos);
  EXPECT_EQ(child.code(), 0);
}

TEST(TerminalPosix, ALineThatDoesNotFitIsRefused) {
  OnTerminal child(read_two_lines);
  child.wait_for("first? ");
  child.type("123456789012345\r");
  child.wait_for("second? ");
  child.type("12345678\r");
  EXPECT_EQ(child.code(), 2);
}

TEST(TerminalPosix, TheInterruptKeyAndRequestsToEndFailTheRead) {
  for (const int number : {0, SIGTERM, SIGHUP, SIGINT}) {
    OnTerminal child(read_two_lines);
    child.wait_for("first? ");
    if (number == 0) {
      child.type("\x03");
    } else {
      child.send(number);
    }
    EXPECT_EQ(child.code(), 1) << number;
  }
}

TEST(TerminalPosix, ATerminalThatGoesFailsTheRead) {
  OnTerminal child(read_two_lines);
  child.wait_for("first? ");
  child.go_away();
  EXPECT_EQ(child.code(), 1);
}

int read_hidden() {
  char line[16];
  {
    Terminal terminal;
    if (!terminal.open() || !terminal.hide_typed()) return 1;
    if (!terminal.write("hidden? ") || !terminal.read_line(line)) return 2;
  }
  Terminal terminal;
  if (!terminal.open() || !terminal.write("shown? ") || !terminal.read_line(line)) return 3;
  return terminal.write("end") ? 0 : 4;
}

TEST(TerminalPosix, WhatIsHiddenIsNotShownAndTheRestIs) {
  OnTerminal child(read_hidden);
  child.wait_for("hidden? ");
  child.type("first\r");
  const std::string shown = child.wait_for("shown? ");
  EXPECT_EQ(shown.find("first"), std::string::npos);
  // The next prompt begins a line.
  EXPECT_NE(shown.find("hidden? \r\nshown? "), std::string::npos);
  child.type("second\r");
  EXPECT_NE(child.wait_for("end").find("second"), std::string::npos);
  EXPECT_EQ(child.code(), 0);
}

int interrupted_between_two_terminals() {
  // Whoever starts the tests in the background may have had the signal ignored.
  ::signal(SIGINT, SIG_DFL);
  char line[16];
  {
    Terminal terminal;
    if (!terminal.open() || !terminal.write("first? ") || !terminal.read_line(line)) return 1;
  }
  sigset_t blocked;
  sigemptyset(&blocked);
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  struct sigaction action {};
  sigaction(SIGINT, nullptr, &action);
  if (sigismember(&blocked, SIGINT) != 0 || action.sa_handler != SIG_DFL) return 2;
  raise(SIGINT);
  return 3;
}

TEST(TerminalPosix, AfterItsEndTheInterruptKeyEndsTheProcessAgain) {
  OnTerminal child(interrupted_between_two_terminals);
  child.wait_for("first? ");
  child.type("\r");
  EXPECT_EQ(child.code(), -SIGINT);
}

int interrupted_at_the_second() {
  char line[16];
  {
    Terminal terminal;
    if (!terminal.open() || !terminal.write("first? ") || !terminal.read_line(line)) return 1;
  }
  Terminal terminal;
  if (!terminal.open() || !terminal.write("second? ")) return 2;
  return terminal.read_line(line) ? 3 : 0;
}

TEST(TerminalPosix, TheInterruptKeyFailsTheReadOfALaterTerminalToo) {
  OnTerminal child(interrupted_at_the_second);
  child.wait_for("first? ");
  child.type("\r");
  child.wait_for("second? ");
  child.type("\x03");
  EXPECT_EQ(child.code(), 0);
}

int drop_what_was_typed() {
  Terminal terminal;
  char line[16];
  if (!terminal.open() || !terminal.write("ready")) return 1;
  for (int waiting = 0; waiting < 6; usleep(1000)) {
    if (ioctl(STDIN_FILENO, FIONREAD, &waiting) != 0) return 2;
  }
  terminal.drop_typed();
  if (!terminal.write("now? ") || !terminal.read_line(line)) return 3;
  return std::string_view(line) == "kept" ? 0 : 4;
}

TEST(TerminalPosix, WhatWasTypedBeforeIsDropped) {
  OnTerminal child(drop_what_was_typed);
  child.wait_for("ready");
  child.type("typed\r");
  child.wait_for("now? ");
  child.type("kept\r");
  EXPECT_EQ(child.code(), 0);
}

int without_a_terminal() {
  if (fork() == 0) {
    setsid();
    Terminal terminal;
    _exit(terminal.open() ? 1 : 0);
  }
  int status = 0;
  wait(&status);
  return WEXITSTATUS(status);
}

TEST(TerminalPosix, WithoutOneItDoesNotOpen) {
  OnTerminal child(without_a_terminal);
  EXPECT_EQ(child.code(), 0);
}

int width() {
  Terminal terminal;
  winsize size{};
  size.ws_col = 123;
  size.ws_row = 40;
  ioctl(STDIN_FILENO, TIOCSWINSZ, &size);
  return terminal.open() && terminal.columns() == 123 && stdout_takes_colours() ? 0 : 1;
}

TEST(TerminalPosix, TellsItsWidth) {
  OnTerminal child(width);
  EXPECT_EQ(child.code(), 0);
}

TEST(WriteAllToStdout, FailsWhenNotAllIsTaken) {
  const int original = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(dup2(full, STDOUT_FILENO), 0);
  const bool taken = write_all_to_stdout("text");
  const bool colours = stdout_takes_colours();
  dup2(original, STDOUT_FILENO);
  close(original);
  close(full);
  EXPECT_FALSE(taken);
  EXPECT_FALSE(colours);
}

}  // namespace
}  // namespace kova
