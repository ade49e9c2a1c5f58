#include "admin/policy/case_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "admin/common/json_output.h"
#include "admin/common/markup.h"
#include "admin/common/printable.h"
#include "admin/common/utf8.h"

namespace kova::admin {

namespace {

/// A name on a TAP line: "#" would begin a directive.
std::string tap_name(std::string_view name) {
  std::string text;
  for (std::size_t i = 0; i < name.size();) {
    const Character character = first_character(name.substr(i));
    const std::string_view bytes = name.substr(i, character.size);
    if (bytes == "#" || bytes == "\\") text += '\\';
    text += is_unusual(character) ? escape_of(character) : std::string(bytes);
    i += character.size;
  }
  return text;
}

struct Difference {
  std::string member;
  std::string expected;
  std::string got;
};

/// What beside the verdict is not as expected.
std::vector<Difference> differences(const CaseOutcome& outcome) {
  std::vector<Difference> found;
  const PolicyCase& expected = *outcome.expected;
  const CallVerdict& got = outcome.got;
  if (expected.reason && *expected.reason != got.message) {
    found.push_back({.member = "reason", .expected = *expected.reason, .got = got.message});
  }
  if (expected.table) {
    found.push_back({.member = "table", .expected = *expected.table, .got = got.table});
  }
  if (expected.type) {
    found.push_back({.member = "type", .expected = *expected.type, .got = got.type});
  }
  return found;
}

/// A JSON text is a YAML scalar of one line.
std::string scalar(const std::string& text) {
  return json_line(Json(text));
}

std::string yaml_block(const CaseOutcome& outcome) {
  std::string text =
      fmt::format("  ---\n  expected: {}\n  got: {}\n", verdict_name(outcome.expected->expect),
                  verdict_name(outcome.got.verdict));
  if (!outcome.got.message.empty()) {
    text += fmt::format("  message: {}\n", scalar(outcome.got.message));
  }
  for (const Difference& difference : differences(outcome)) {
    text += fmt::format("  expected_{0}: {1}\n  got_{0}: {2}\n", difference.member,
                        scalar(difference.expected), scalar(difference.got));
  }
  return text + "  ...\n";
}

std::string xml_text(std::string_view text) {
  return escape_markup(printable(text));
}

std::string failure_text(const CaseOutcome& outcome) {
  std::string text = fmt::format("expected {}, got {}", verdict_name(outcome.expected->expect),
                                 verdict_name(outcome.got.verdict));
  if (!outcome.got.message.empty()) text += fmt::format(" ({})", outcome.got.message);
  for (const Difference& difference : differences(outcome)) {
    text += fmt::format("; expected {} \"{}\", got \"{}\"", difference.member, difference.expected,
                        difference.got);
  }
  return text;
}

std::string testcase(std::string_view suite, const CaseOutcome& outcome) {
  std::string text = fmt::format(R"(  <testcase classname="{}" name="{}")", xml_text(suite),
                                 xml_text(outcome.expected->name));
  if (outcome.as_expected) return text + "/>\n";
  return text + fmt::format(">\n    <failure type=\"{}\" message=\"{}\"/>\n  </testcase>\n",
                            outcome.unexpected_allow ? "unexpected allow" : "not as expected",
                            xml_text(failure_text(outcome)));
}

}  // namespace

std::string tap_report(const std::vector<CaseOutcome>& outcomes) {
  std::string text = fmt::format("TAP version 13\n1..{}\n", outcomes.size());
  for (const CaseOutcome& outcome : outcomes) {
    if (outcome.unexpected_allow) {
      text += "# unexpected allow: " + tap_name(outcome.expected->name) + '\n';
    }
  }
  std::size_t number = 0;
  for (const CaseOutcome& outcome : outcomes) {
    text += fmt::format("{} {} - {}\n", outcome.as_expected ? "ok" : "not ok", ++number,
                        tap_name(outcome.expected->name));
    if (!outcome.as_expected) text += yaml_block(outcome);
  }
  return text;
}

std::string junit_report(std::string_view suite, const std::vector<CaseOutcome>& outcomes) {
  const auto failures = std::ranges::count_if(
      outcomes, [](const CaseOutcome& outcome) { return !outcome.as_expected; });
  std::string text = fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<testsuite name=\"{}\" tests=\"{}\" failures=\"{}\" errors=\"0\" skipped=\"0\">\n",
      xml_text(suite), outcomes.size(), failures);
  for (const CaseOutcome& outcome : outcomes) text += testcase(suite, outcome);
  return text + "</testsuite>\n";
}

}  // namespace kova::admin
