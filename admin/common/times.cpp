#include "admin/common/times.h"

#include <fmt/format.h>

#include <chrono>

#include "base/ascii.h"

namespace kova::admin {

namespace {

using std::chrono::milliseconds;
using SystemMs = std::chrono::sys_time<milliseconds>;

constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:dd.dddZ";

bool has_form(std::string_view text) {
  if (text.size() != kForm.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kForm[i] == 'd' ? !is_digit(text[i]) : text[i] != kForm[i]) return false;
  }
  return true;
}

int number_at(std::string_view text, std::size_t begin, std::size_t digits) {
  int number = 0;
  for (const char c : text.substr(begin, digits)) number = number * 10 + (c - '0');
  return number;
}

}  // namespace

UnixMs now_ms() {
  const auto now = std::chrono::system_clock::now();
  return std::chrono::floor<milliseconds>(now).time_since_epoch().count();
}

std::string time_text(UnixMs time) {
  const SystemMs point{milliseconds(time)};
  const auto day = std::chrono::floor<std::chrono::days>(point);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(point - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                     clock.subseconds().count());
}

std::optional<UnixMs> parse_time(std::string_view text) {
  if (!has_form(text)) return std::nullopt;
  const std::chrono::year_month_day date{
      std::chrono::year(number_at(text, 0, 4)),
      std::chrono::month(static_cast<unsigned>(number_at(text, 5, 2))),
      std::chrono::day(static_cast<unsigned>(number_at(text, 8, 2)))};
  const int hour = number_at(text, 11, 2);
  const int minute = number_at(text, 14, 2);
  const int second = number_at(text, 17, 2);
  if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const SystemMs day = std::chrono::sys_days(date);
  const int seconds = (hour * 60 + minute) * 60 + second;
  return day.time_since_epoch().count() + std::int64_t{1000} * seconds + number_at(text, 20, 3);
}

}  // namespace kova::admin
