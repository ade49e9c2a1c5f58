#include "admin/common/environment_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "admin/common/file_text.h"
#include "admin/common/refusal.h"
#include "admin/common/utf8.h"
#include "base/ascii.h"

namespace kova::admin {

namespace {

constexpr bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

constexpr bool needs_escape_in_quotes(char c) {
  return c == '"' || c == '\\' || c == '`' || c == '$';
}

std::string_view without_blanks(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

bool is_name(std::string_view text) {
  return !text.empty() && !is_digit(text.front()) &&
         std::all_of(text.begin(), text.end(), is_word_byte);
}

[[noreturn]] void refuse_at(std::size_t index, const char* why) {
  throw Refusal(fmt::format("column {}: {}", index + 1, why));
}

/// Reads the value of one line, which begins at an index of it.
class ValueReader {
 public:
  ValueReader(std::string_view line, std::size_t begin)
      : text_(line), position_(begin), value_(line.size()) {
    value_.cut(0);
  }

  [[nodiscard]] SecretText read() {
    // After a closing quote the value goes on; blanks between the parts are dropped.
    while (skip_blanks()) {
      const char c = text_[position_];
      if (c == '\'' || c == '"') {
        quoted();
      } else {
        unquoted();
      }
    }
    return std::move(value_);
  }

 private:
  bool skip_blanks() {
    while (position_ < text_.size() && is_blank(text_[position_])) ++position_;
    return position_ < text_.size();
  }

  /// Takes one byte off; a value ends with its line. `opened` is the index of what asks for it.
  char take(std::size_t opened) {
    if (position_ == text_.size()) {
      refuse_at(opened, "a quote is left open or the value continues on the next line");
    }
    return text_[position_++];
  }

  void quoted() {
    const std::size_t open = position_;
    const char quote = take(open);
    for (char c = take(open); c != quote; c = take(open)) {
      if (quote == '"' && c == '\\') {
        c = take(open);
        if (!needs_escape_in_quotes(c)) value_.add('\\');
      }
      value_.add(c);
    }
  }

  void unquoted() {
    std::size_t kept = value_.view().size();
    while (position_ < text_.size()) {
      const std::size_t index = position_;
      char c = take(index);
      const bool escaped = c == '\\';
      if (escaped) c = take(index);
      value_.add(c);
      if (escaped || !is_blank(c)) kept = value_.view().size();
    }
    value_.cut(kept);
  }

  std::string_view text_;
  std::size_t position_;
  SecretText value_;
};

/// Takes one line off the text, without its end (LF, CR LF or CR).
std::string_view take_line(std::string_view& text) {
  const std::size_t end = std::min(text.find_first_of("\r\n"), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end);
  if (text.starts_with("\r\n")) text.remove_prefix(1);
  if (!text.empty()) text.remove_prefix(1);
  return line;
}

void parse_line(std::string_view line, std::vector<EnvironmentEntry>& entries) {
  if (line.find('\0') != line.npos) refuse_at(line.find('\0'), "a NUL byte");
  const std::size_t malformed = find_malformed(line);
  if (malformed != line.npos) refuse_at(malformed, "the line is not UTF-8");
  const std::string_view text = without_blanks(line);
  if (text.empty()) return;
  const auto begin = static_cast<std::size_t>(text.data() - line.data());
  if (text.front() == '#' || text.front() == ';') {
    // Versions of the service manager differ on whether the next line belongs to the comment.
    if (text.back() == '\\') {
      refuse_at(begin + text.size() - 1, "a comment must not end in a backslash");
    }
    return;
  }
  const std::size_t equals = line.find('=');
  if (equals == line.npos) refuse_at(begin, "there is no = in the line");
  const std::string_view name = without_blanks(line.substr(0, equals));
  if (!is_name(name)) refuse_at(begin, "the name of the variable is invalid");
  entries.push_back({.name = std::string(name), .value = ValueReader(line, equals + 1).read()});
}

}  // namespace

std::vector<EnvironmentEntry> parse_environment(std::string_view text) {
  std::vector<EnvironmentEntry> entries;
  for (std::size_t number = 1; !text.empty(); ++number) {
    try {
      parse_line(take_line(text), entries);
    } catch (const Refusal& refusal) {
      throw Refusal(fmt::format("line {}, {}", number, refusal.what()));
    }
  }
  return entries;
}

std::vector<EnvironmentEntry> read_environment_file(const std::string& path) {
  const SecretText text = read_file(path, kEnvironmentFileLimit);
  try {
    return parse_environment(text.view());
  } catch (const Refusal& refusal) {
    throw Refusal(path + ": " + refusal.what());
  }
}

}  // namespace kova::admin
