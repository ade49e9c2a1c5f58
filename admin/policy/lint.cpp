#include "admin/policy/lint.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/common/deployment.h"
#include "admin/common/json_output.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "admin/policy/engine_columns.h"
#include "admin/policy/lint_rules.h"
#include "admin/policy/policy_source.h"
#include "base/ascii.h"
#include "platform/console.h"
#include "policy/policy.h"

namespace kova::admin {

namespace {

struct LintOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<bool> other_host;
  std::vector<std::string> files;
  bool json = false;
};

bool is_of_engine(const McpPolicy& policy) {
  return equal_ignoring_case(policy.database, deployment_value("KOVA_MCP_DATABASE"));
}

/// Gives the policies of the deployment's database the engine's columns.
void add_columns(std::vector<LintSubject>& subjects) {
  const auto asks = [](const LintSubject& subject) { return is_of_engine(*subject.policy); };
  if (std::ranges::none_of(subjects, asks)) return;
  const EngineColumns engine = ask_engine_columns();
  if (!engine.failure.empty()) {
    write_stderr("kova-admin: note: the engine was not asked: " + printable(engine.failure) + '\n');
  }
  for (LintSubject& subject : subjects) {
    if (asks(subject)) subject.columns = engine.tables;
  }
}

std::string findings_text(const std::vector<LintFinding>& findings) {
  std::string text;
  for (const LintFinding& finding : findings) {
    text += fmt::format("{}: {}{}{}{}: {}\n", printable(finding.file), finding.rule,
                        finding.key.empty() ? "" : " (", finding.key,
                        finding.key.empty() ? "" : ")", printable(finding.why));
    text += fmt::format("  -> {}\n", printable(finding.instead));
  }
  return text.empty() ? "Nothing found.\n" : text;
}

void print_as_json(const std::vector<LintFinding>& findings) {
  Json list = Json::array();
  for (const LintFinding& finding : findings) {
    list.push_back({{"file", finding.file},
                    {"rule", finding.rule},
                    {"key", finding.key},
                    {"why", finding.why},
                    {"instead", finding.instead}});
  }
  print_json({{"findings", list}});
}

int run(const LintOptions& options) {
  use_deployment(*options.env);
  std::vector<std::unique_ptr<McpPolicy>> policies;
  std::vector<LintSubject> subjects;
  for (const std::string& file : options.files) {
    policies.push_back(need_policy(file, Launch::kAny, *options.other_host));
    subjects.push_back({.file = file,
                        .policy = policies.back().get(),
                        .columns = std::nullopt,
                        .other_host = *options.other_host});
  }
  add_columns(subjects);
  std::vector<LintFinding> findings;
  for (const LintSubject& subject : subjects) {
    std::ranges::move(lint_policy(subject), std::back_inserter(findings));
  }
  std::ranges::move(lint_names(subjects), std::back_inserter(findings));
  if (options.json) {
    print_as_json(findings);
  } else {
    print(findings_text(findings));
  }
  return findings.empty() ? kExitFine : kExitFound;
}

}  // namespace

RunCommand add_policy_lint(CommandParser& parser) {
  const auto options = std::make_shared<LintOptions>();
  options->env = add_env_option(parser);
  options->other_host = add_other_host_option(parser);
  parser.add_option("FILE", options->files, "The policy files").required().type_name("FILE");
  parser.add_flag("--json", options->json,
                  R"(Print {"findings":[{"file","rule","key","why","instead"}]})");
  parser.footer(
      "Launch identities are not judged. When the environment, or --env FILE, holds a complete\n"
      "login, the engine is asked for the columns of its tables.\n"
      "Exit codes: 0 nothing found, 1 findings, 2 a file is unreadable or not valid.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
