#include "admin/policy/explain.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "admin/common/deployment.h"
#include "admin/common/file_text.h"
#include "admin/common/json_output.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "admin/common/refusal.h"
#include "admin/policy/call_judge.h"
#include "admin/policy/json_places.h"
#include "admin/policy/policy_source.h"
#include "admin/policy/summary.h"
#include "base/ascii.h"
#include "policy/policy.h"

namespace kova::admin {

namespace {

constexpr int kExitApproval = 3;
/// The largest message that the server reads, and a line end.
constexpr std::size_t kCallLimit = 1048576 + 2;

struct ExplainOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<bool> other_host;
  std::string file;
  std::optional<std::string> call;
  bool json = false;
  bool markdown = false;
};

int explain_policy(const ExplainOptions& options, const McpPolicy& policy) {
  if (options.json) {
    Json sections = Json::array();
    for (const SummarySection& section : summary_of(policy)) {
      sections.push_back({{"title", section.title}, {"sentences", section.sentences}});
    }
    print_json({{"policy", policy.name}, {"sections", sections}});
  } else {
    print(summary_text(policy, options.markdown ? SummaryForm::kMarkdown : SummaryForm::kText));
  }
  return kExitFine;
}

/// The word at an index, a text with its quotation marks, or the one sign.
std::string_view blamed_text(std::string_view text, std::size_t index) {
  if (text.substr(index).starts_with('"')) {
    return text.substr(index, std::max(text.find('"', index + 1), index) - index + 1);
  }
  std::size_t end = index;
  while (end < text.size() && is_word_byte(text[end])) ++end;
  return text.substr(index, std::max<std::size_t>(end - index, 1));
}

void add_line(std::string& page, std::string_view name, std::string_view text) {
  if (!text.empty()) page += fmt::format("{:<10} {}\n", name, printable(text));
}

std::string verdict_page(std::string_view text, const CallVerdict& verdict) {
  std::string page;
  add_line(page, "verdict", verdict_name(verdict.verdict));
  add_line(page, "tool", verdict.tool);
  add_line(page, "message", verdict.message);
  add_line(page, "check", verdict.check);
  if (verdict.offset) {
    add_line(page, "place",
             fmt::format("{} (byte {}): {}", byte_place(text, *verdict.offset), *verdict.offset,
                         blamed_text(text, *verdict.offset)));
  }
  add_line(page, "type", verdict.type);
  add_line(page, "table", verdict.table);
  add_line(page, "canonical", verdict.canonical);
  add_line(page, "digest", verdict.digest);
  return page;
}

int exit_code(Verdict verdict) {
  switch (verdict) {
    case Verdict::kAllow:
      return kExitFine;
    case Verdict::kDeny:
      return kExitFound;
    case Verdict::kApproval:
      break;
  }
  return kExitApproval;
}

int explain_call(const ExplainOptions& options, const McpPolicy& policy) {
  const std::string text =
      options.call == "-" ? std::string(read_standard_input(kCallLimit).view()) : *options.call;
  CallJudge judge(policy);
  const CallVerdict verdict = text.starts_with('{') ? judge.message(text) : judge.statement(text);
  if (options.json) {
    print_json(verdict_json(verdict));
  } else {
    print(verdict_page(text, verdict));
  }
  return exit_code(verdict.verdict);
}

int run(const ExplainOptions& options) {
  const bool has_call = options.call.has_value();
  if (options.markdown && (has_call || options.json)) {
    throw Refusal("--markdown goes with neither SQL nor --json");
  }
  use_deployment(*options.env);
  const auto policy = need_policy(options.file, Launch::kEnvironment, *options.other_host);
  return has_call ? explain_call(options, *policy) : explain_policy(options, *policy);
}

}  // namespace

RunCommand add_policy_explain(CommandParser& parser) {
  const auto options = std::make_shared<ExplainOptions>();
  options->env = add_env_option(parser);
  options->other_host = add_other_host_option(parser);
  parser.add_option("FILE", options->file, "The policy file").required().type_name("FILE");
  parser
      .add_option("SQL", options->call,
                  "A statement, or a whole tools/call line; - reads it; -- ends the options")
      .type_name("SQL|-");
  parser.add_flag("--markdown", options->markdown, "Without SQL: as Markdown, for a review");
  parser.add_flag("--json", options->json,
                  R"(With SQL: {"verdict","tool","message","check","offset","type","table",)"
                  R"("canonical","digest"}; without: {"policy","sections"})");
  parser.footer(
      "Without SQL: what the policy means. With it: what the server makes of the call.\n"
      "The kill switches of the environment, or of --env FILE, count.\n"
      "Exit codes: 0 allow, 1 deny, 2 it could not judge, 3 an operator's approval is required.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
