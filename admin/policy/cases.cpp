#include "admin/policy/cases.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <memory>

#include "admin/common/file_text.h"
#include "admin/common/refusal.h"
#include "admin/common/secret_text.h"
#include "admin/policy/json_places.h"
#include "base/ascii.h"
#include "base/text.h"
#include "json/json.h"

namespace kova::admin {

namespace {

constexpr std::size_t kCasesLimit = 16777216;

constexpr std::string_view kMembers[] = {"name",   "tool",   "sql",   "arguments",
                                         "expect", "reason", "table", "type"};

/// The tokens of a text, at most as many as it can have.
class CasesReader {
 public:
  explicit CasesReader(std::string_view text)
      : text_(text), tokens_(std::make_unique_for_overwrite<JsonToken[]>(text.size() + 1)) {}

  [[nodiscard]] std::vector<PolicyCase> read() {
    const bool marked = text_.starts_with(kByteOrderMark);
    skipped_ = marked ? kByteOrderMark.size() : 0;
    std::size_t stopped = 0;
    if (!json_parse(text_.substr(skipped_), tokens_.get(), static_cast<int>(text_.size()) + 1, doc_,
                    &stopped)) {
      refuse_at(stopped, "this is not JSON");
    }
    if (!doc_.is(0, JsonType::kArray)) {
      refuse_at(begin_of(0), "the table of cases must be an array");
    }
    std::vector<PolicyCase> cases;
    cases.reserve(static_cast<std::size_t>(doc_[0].size));
    for (const int element : JsonElements(doc_, 0)) {
      cases.push_back(read_case(element, cases.size()));
    }
    return cases;
  }

 private:
  /// Where a value begins, a string's quotation mark included.
  [[nodiscard]] std::size_t begin_of(int token) const {
    const auto start = static_cast<std::size_t>(doc_[token].start);
    return doc_[token].type == JsonType::kString ? start - 1 : start;
  }

  [[noreturn]] void refuse_at(std::size_t index, const std::string& message) const {
    throw Refusal(byte_place(text_, skipped_ + index) + ": " + message);
  }

  [[nodiscard]] std::string text_of(int token, std::string_view key) const {
    if (!doc_.is(token, JsonType::kString)) {
      refuse_at(begin_of(token), fmt::format("\"{}\" must be a text", key));
    }
    // A text is never longer than its source.
    std::string text(doc_.raw(token).size() + 1, '\0');
    if (!json_get_string(doc_, token, TextOut(text.data(), text.size()))) {
      refuse_at(begin_of(token), fmt::format("\"{}\" is no valid text", key));
    }
    // The whole of it: the text may hold an escaped NUL.
    text.resize(decoded_offset(doc_.raw(token), doc_.raw(token).size()));
    return text;
  }

  void check_members(int object) const {
    std::vector<std::string> seen;
    JsonMembers members(doc_, object);
    for (const JsonMember member : members) {
      const std::string key = text_of(member.key, "a member's name");
      if (std::ranges::find(kMembers, std::string_view(key)) == std::end(kMembers)) {
        refuse_at(begin_of(member.key), fmt::format("unknown member \"{}\"", key));
      }
      if (std::ranges::find(seen, key) != seen.end()) {
        refuse_at(begin_of(member.key), fmt::format("a second \"{}\"", key));
      }
      if (json_find(doc_, object, key) != member.value) {
        refuse_at(begin_of(member.key), fmt::format("\"{}\" is written with escapes", key));
      }
      seen.push_back(key);
    }
  }

  [[nodiscard]] std::optional<std::string> optional_text(int object, std::string_view key) const {
    const int token = json_find(doc_, object, key);
    if (token < 0) return std::nullopt;
    return text_of(token, key);
  }

  [[nodiscard]] Verdict read_expect(int object) const {
    const int token = json_find(doc_, object, "expect");
    if (token < 0) refuse_at(begin_of(object), "the case has no \"expect\"");
    const std::optional<Verdict> verdict = verdict_of(text_of(token, "expect"));
    if (!verdict) refuse_at(begin_of(token), R"("expect" must be "allow", "deny" or "approval")");
    return *verdict;
  }

  void read_call(int object, PolicyCase& made) const {
    const int sql = json_find(doc_, object, "sql");
    const int arguments = json_find(doc_, object, "arguments");
    if (sql < 0 && arguments < 0) {
      refuse_at(begin_of(object), R"(the case has neither "sql" nor "arguments")");
    }
    if (sql >= 0 && arguments >= 0) {
      refuse_at(begin_of(std::max(sql, arguments) - 1),
                R"(the case has both "sql" and "arguments")");
    }
    const std::optional<std::string> tool = optional_text(object, "tool");
    if (sql >= 0) {
      // For the server the statement ends at an escaped NUL.
      const std::string statement = text_of(sql, "sql");
      made.tool = tool ? *tool : tool_of(statement.c_str());
      made.arguments = fmt::format(R"({{"sql":"{}"}})", doc_.raw(sql));
      return;
    }
    if (!tool) refuse_at(begin_of(object), R"("arguments" needs a "tool")");
    made.tool = *tool;
    if (doc_.is(arguments, JsonType::kString)) {
      refuse_at(begin_of(arguments), R"("arguments" must be an object)");
    }
    made.arguments = doc_.raw(arguments);
  }

  [[nodiscard]] PolicyCase read_case(int object, std::size_t index) const {
    if (!doc_.is(object, JsonType::kObject)) {
      refuse_at(begin_of(object), "a case must be an object");
    }
    check_members(object);
    PolicyCase made;
    made.expect = read_expect(object);
    read_call(object, made);
    made.name = optional_text(object, "name").value_or(fmt::format("case {}", index + 1));
    made.reason = optional_text(object, "reason");
    made.table = optional_text(object, "table");
    made.type = optional_text(object, "type");
    return made;
  }

  std::string_view text_;
  std::unique_ptr<JsonToken[]> tokens_;
  JsonDoc doc_;
  std::size_t skipped_ = 0;
};

bool is_equal(const std::optional<std::string>& expected, const std::string& got) {
  return !expected || equal_ignoring_case(*expected, got);
}

}  // namespace

std::vector<PolicyCase> parse_cases(std::string_view text) {
  return CasesReader(text).read();
}

std::vector<PolicyCase> read_cases(const std::string& path) {
  const SecretText text =
      path == "-" ? read_standard_input(kCasesLimit) : read_file(path, kCasesLimit);
  try {
    return parse_cases(text.view());
  } catch (const Refusal& refusal) {
    throw Refusal(path + ": " + refusal.what());
  }
}

CaseOutcome judge_case(CallJudge& judge, const PolicyCase& expected) {
  CaseOutcome outcome{.expected = &expected,
                      .got = judge.call(expected.tool, expected.arguments),
                      .as_expected = false,
                      .unexpected_allow = false};
  const CallVerdict& got = outcome.got;
  outcome.as_expected = got.verdict == expected.expect &&
                        (!expected.reason || *expected.reason == got.message) &&
                        is_equal(expected.table, got.table) && is_equal(expected.type, got.type);
  outcome.unexpected_allow = got.verdict == Verdict::kAllow && expected.expect != Verdict::kAllow;
  return outcome;
}

}  // namespace kova::admin
