#include "admin/audit/progress.h"

#include <fmt/format.h>

#include <filesystem>

#include "admin/common/paths.h"
#include "platform/console.h"
#include "platform/environment.h"
#include "platform/shared_input.h"

namespace kova::admin {

namespace {

constexpr std::chrono::milliseconds kFirstAfter(500);
constexpr std::chrono::milliseconds kInterval(200);
constexpr double kMegabyte = 1e6;
/// Back to the first column, and the rest of the line away.
constexpr const char* kLineStart = "\r\x1b[K";

std::uint64_t size_of_all(std::span<const std::string> files) {
  std::uint64_t total = 0;
  for (const std::string& file : files) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path_of(file), error);
    if (error) return 0;
    total += size;
  }
  return total;
}

}  // namespace

std::string progress_line(std::uint64_t done, std::uint64_t total, double seconds) {
  const double megabytes = static_cast<double>(done) / kMegabyte;
  std::string rate = fmt::format("{:.0f} MB, {:.0f} MB/s", megabytes, megabytes / seconds);
  if (total == 0) return rate;
  // A file may grow while it is read.
  const double share = static_cast<double>(done) / static_cast<double>(total);
  return fmt::format("{:3.0f} %, {}", share < 1 ? 100 * share : 100, rate);
}

Progress::Progress(std::span<const std::string> files, bool is_wanted)
    : is_shown_(is_wanted && stderr_is_terminal() && EnvironmentValue("TERM").view() != "dumb"),
      next_(start_ + kFirstAfter) {
  if (is_shown_) total_ = size_of_all(files);
}

Progress::~Progress() {
  clear();
}

void Progress::clear() {
  if (has_line_) write_stderr(kLineStart);
  has_line_ = false;
}

void Progress::show() {
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  next_ = now + kInterval;
  has_line_ = true;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  write_stderr(kLineStart + progress_line(done_, total_, seconds));
}

}  // namespace kova::admin
