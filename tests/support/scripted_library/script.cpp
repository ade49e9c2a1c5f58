#include "script.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace scripted {

namespace {

[[noreturn]] void refuse(std::string_view line, const char* why) {
  std::fprintf(stderr, "scripted client library: %s: %.*s\n", why, static_cast<int>(line.size()),
               line.data());
  std::exit(99);
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (;;) {
    const std::size_t end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}

/// Reads one field's escapes.
class Unescaper {
 public:
  explicit Unescaper(std::string_view field) : rest_(field), field_(field) {}

  std::string all() {
    std::string out;
    while (!rest_.empty()) {
      if (rest_.substr(0, 2) == "\\*") {
        rest_.remove_prefix(2);
        const std::size_t times = count();
        out.append(times, character());
      } else {
        out += character();
      }
    }
    return out;
  }

 private:
  char take() {
    if (rest_.empty()) refuse(field_, "cut escape");
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  char character() {
    const char c = take();
    if (c != '\\') return c;
    switch (take()) {
      case '\\':
        return '\\';
      case 't':
        return '\t';
      case 'n':
        return '\n';
      case 'r':
        return '\r';
      case '0':
        return '\0';
      case 'x': {
        const char digits[] = {take(), take(), '\0'};
        return static_cast<char>(std::strtoul(digits, nullptr, 16));
      }
      default:
        refuse(field_, "unknown escape");
    }
  }

  std::size_t count() {
    std::string digits;
    for (char c = take(); c != ';'; c = take()) digits += c;
    return std::strtoull(digits.c_str(), nullptr, 10);
  }

  std::string_view rest_;
  std::string_view field_;
};

std::string unescaped(std::string_view field) {
  return Unescaper(field).all();
}

Text text_of(std::string_view field) {
  if (field == "\\N") return std::nullopt;
  return unescaped(field);
}

std::int64_t number_of(std::string_view field) {
  const std::string text(field);
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0') refuse(field, "not a number");
  return value;
}

Match match_of(std::string_view field) {
  if (field == "any") return Match::kAny;
  if (field == "exact") return Match::kExact;
  if (field == "prefix") return Match::kPrefix;
  refuse(field, "unknown match");
}

std::vector<Text> cells_from(const std::vector<std::string_view>& fields, std::size_t first) {
  std::vector<Text> cells;
  for (std::size_t i = first; i < fields.size(); ++i) cells.push_back(text_of(fields[i]));
  return cells;
}

Rule rule_from(std::string_view line, const std::vector<std::string_view>& fields) {
  if (fields.size() < 3) refuse(line, "a rule needs an operation and a match");
  Rule rule;
  rule.operation = fields[1];
  rule.match = match_of(fields[2]);
  if (fields.size() > 3) rule.text = unescaped(fields[3]);
  return rule;
}

bool add_action(Rule& rule, std::string_view name, std::string_view argument) {
  if (name == "sleep") {
    rule.actions.push_back({Act::kSleep, static_cast<unsigned>(number_of(argument)), {}});
  } else if (name == "exit") {
    rule.actions.push_back({Act::kExit, static_cast<unsigned>(number_of(argument)), {}});
  } else if (name == "stdout") {
    rule.actions.push_back({Act::kStdout, 0, unescaped(argument)});
  } else if (name == "stderr") {
    rule.actions.push_back({Act::kStderr, 0, unescaped(argument)});
  } else if (name == "crash") {
    rule.actions.push_back({Act::kCrash, 0, {}});
  } else if (name == "hang") {
    rule.actions.push_back({Act::kHang, 0, {}});
  } else if (name == "streams") {
    rule.actions.push_back({Act::kStreams, 0, {}});
  } else if (name == "leave") {
    rule.actions.push_back({Act::kLeave, 0, {}});
  } else if (name == "locale") {
    rule.actions.push_back({Act::kLocale, 0, unescaped(argument)});
  } else {
    return false;
  }
  return true;
}

bool add_answer(Rule& rule, const std::vector<std::string_view>& fields) {
  const std::string_view name = fields[0];
  const std::string_view argument = fields.size() > 1 ? fields[1] : std::string_view();
  if (name == "times") {
    rule.times = static_cast<std::uint64_t>(number_of(argument));
  } else if (name == "null") {
    rule.null = true;
  } else if (name == "result") {
    rule.result = number_of(argument);
  } else if (name == "status") {
    rule.status = text_of(argument);
  } else if (name == "column") {
    rule.columns.push_back(text_of(argument));
  } else if (name == "fields") {
    rule.fields = static_cast<int>(number_of(argument));
  } else if (name == "row") {
    rule.rows.push_back({1, cells_from(fields, 1)});
  } else if (name == "repeat") {
    rule.rows.push_back({static_cast<std::uint64_t>(number_of(argument)), cells_from(fields, 2)});
  } else {
    return false;
  }
  return true;
}

}  // namespace

std::vector<Rule> parse_script(const std::string& script) {
  std::vector<Rule> rules;
  for (const std::string_view line : split(script, '\n')) {
    if (line.empty() || line.front() == '#') continue;
    const std::vector<std::string_view> fields = split(line, '\t');
    if (fields[0] == "rule") {
      rules.push_back(rule_from(line, fields));
      continue;
    }
    if (rules.empty()) refuse(line, "directive before the first rule");
    const std::string_view argument = fields.size() > 1 ? fields[1] : std::string_view();
    if (!add_action(rules.back(), fields[0], argument) && !add_answer(rules.back(), fields)) {
      refuse(line, "unknown directive");
    }
  }
  return rules;
}

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      out += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7F) {
      out += c;
    } else {
      char code[5];
      std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned>(byte));
      out += code;
    }
  }
  return out;
}

}  // namespace scripted
