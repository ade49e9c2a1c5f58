#include "support/child_modes.h"

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/console.h"
#include "platform/environment.h"

namespace kova::testing {
namespace {

constexpr int kLongReply = 3000000;

std::string read_everything() {
  std::string text;
  char block[65536];
  while (const std::size_t got = read_stdin(block, sizeof block)) text.append(block, got);
  return text;
}

[[noreturn]] void wait_for_good() {
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}

int echo() {
  write_stdout(read_everything());
  return 0;
}

int exit_7() {
  return 7;
}

int hang() {
  write_stdout("ready\n");
  wait_for_good();
}

int write_long() {
  const std::string block(100000, 'x');
  for (int written = 0; written < kLongReply; written += 100000) write_stdout(block);
  return 0;
}

int crash() {
  write_stdout("a whole reply\n");
  crash_now();
}

int handles() {
  report_handles();
  return 0;
}

int prepared() {
  report_preparation();
  return 0;
}

std::string unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escaped = text[i] == '%' && i + 1 < text.size();
    out += !escaped ? text[i] : text[i + 1] == 'n' ? '\n' : '\r';
    if (escaped) ++i;
  }
  return out;
}

class LineResponder {
 public:
  /// False when the process is to end.
  bool take(const std::string& line) {
    if (line == "exit") return false;
    if (line == "go") {
      if (holding_) write_stdout("held\n");
      holding_ = false;
    } else if (line == "hold") {
      holding_ = true;
    } else if (line == "count") {
      write_stdout(std::to_string(++count_) + "\n");
    } else if (line.starts_with("raw ")) {
      write_stdout(unescaped(line.substr(4)));
    } else if (line.starts_with("long ")) {
      write_stdout(std::string(std::stoul(line.substr(5)), 'x') + "\n");
    } else if (line != "silent") {
      write_stdout(line + "\n");
    }
    return true;
  }

 private:
  bool holding_ = false;
  int count_ = 0;
};

int answer_lines() {
  LineResponder responder;
  std::string text;
  char block[65536];
  while (const std::size_t got = read_stdin(block, sizeof block)) {
    text.append(block, got);
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
      if (!responder.take(text.substr(begin, end - begin))) return 0;
    }
    text.erase(0, begin);
  }
  return 0;
}

int echo_without_line_feed() {
  std::string line = read_everything();
  while (line.ends_with('\n')) line.pop_back();
  write_stdout(line);
  return 0;
}

int silent() {
  static_cast<void>(read_everything());
  return 0;
}

int reply_then_fail() {
  write_stdout(read_everything());
  return 7;
}

int reply_then_hang() {
  write_stdout(read_everything());
  wait_for_good();
}

int tool_worker();

struct Row {
  std::string_view argument;
  ChildMode mode;
};

constexpr Row kRows[] = {
    {kChildEcho, echo},
    {kChildExit7, exit_7},
    {kChildHang, hang},
    {kChildLong, write_long},
    {kChildCrash, crash},
    {kChildHandles, handles},
    {kChildPrepared, prepared},
    {kChildLines, answer_lines},
    {kWorkerNoLineFeed, echo_without_line_feed},
    {kWorkerSilent, silent},
    {kWorkerReplyThenFail, reply_then_fail},
    {kWorkerReplyThenHang, reply_then_hang},
    {"--tool-worker", tool_worker},
};

int tool_worker() {
  const EnvironmentValue name(kWorkerMode);
  const ChildMode mode = find_child_mode(name.view());
  return mode != nullptr && mode != tool_worker ? mode() : echo();
}

}  // namespace

ChildMode find_child_mode(std::string_view argument) {
  for (const Row& row : kRows) {
    if (row.argument == argument) return row.mode;
  }
  return find_platform_child_mode(argument);
}

}  // namespace kova::testing
