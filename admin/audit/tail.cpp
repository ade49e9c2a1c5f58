#include "admin/audit/tail.h"

#include <deque>
#include <memory>
#include <string>

#include "admin/audit/followed_file.h"
#include "admin/audit/record_line.h"
#include "admin/common/output.h"
#include "platform/clock.h"
#include "platform/thread.h"

namespace kova::admin {

namespace {

constexpr std::uint32_t kPauseMs = 200;

struct TailOptions {
  std::string file;
  int lines = 10;
};

/// Shows lines at once, but at first only the last ones of those that were there.
class Screen {
 public:
  explicit Screen(int lines) : lines_(static_cast<std::size_t>(lines)) {}

  void take(std::string_view line) {
    if (is_live_) {
      show(line);
      return;
    }
    // Read as records when it is known which are shown: the file may be long.
    waiting_.emplace_back(line);
    if (waiting_.size() > lines_) waiting_.pop_front();
  }

  void go_live() {
    is_live_ = true;
    for (const std::string& line : waiting_) show(line);
    waiting_.clear();
  }

 private:
  void show(std::string_view line) {
    AuditRecord record;
    print((reader_.read(line, record) ? record_line(record, colour_) : unreadable_line(line)) +
          '\n');
  }

  std::size_t lines_;
  bool is_live_ = false;
  bool colour_ = stdout_has_colour();
  AuditRecordReader reader_;
  std::deque<std::string> waiting_;
};

int run(const TailOptions& options) {
  FollowedFile file(options.file);
  Screen screen(options.lines);
  const auto take = [&](std::string_view line) { screen.take(line); };
  file.poll(tick_ms(), take);
  screen.go_live();
  for (;;) {
    sleep_thread(kPauseMs);
    file.poll(tick_ms(), take);
  }
}

}  // namespace

RunCommand add_audit_tail(CommandParser& parser) {
  const auto options = std::make_shared<TailOptions>();
  constexpr int kLinesLimit = 10000;
  parser.add_option("--lines", options->lines, "Records to begin with; 10 without it")
      .between(0, kLinesLimit)
      .type_name("NUMBER");
  parser.add_option("FILE", options->file, "The audit file").required();
  parser.footer(
      "Shows the last records of an audit file and then each new one, on one line, also when the\n"
      "file is rotated. Ends with the interrupt key.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
