#include "admin/policy/test.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/audit/output_target.h"
#include "admin/common/deployment.h"
#include "admin/common/output.h"
#include "admin/policy/case_report.h"
#include "admin/policy/cases.h"
#include "admin/policy/policy_source.h"

namespace kova::admin {

namespace {

struct TestOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<bool> other_host;
  std::string file;
  std::string cases;
  std::string junit;
  bool fail_on_empty = false;
};

/// The file of the JUnit report, when one is asked for.
std::optional<OutputTarget> report_file(const TestOptions& options) {
  if (options.junit.empty()) return std::nullopt;
  const std::string inputs[] = {options.file, options.cases};
  return std::optional<OutputTarget>(std::in_place, options.junit, inputs);
}

int run(const TestOptions& options) {
  use_deployment(*options.env);
  const auto policy = need_policy(options.file, Launch::kEnvironment, *options.other_host);
  const std::vector<PolicyCase> cases = read_cases(options.cases);
  CallJudge judge(*policy);
  std::vector<CaseOutcome> outcomes;
  outcomes.reserve(cases.size());
  for (const PolicyCase& expected : cases) outcomes.push_back(judge_case(judge, expected));
  if (std::optional<OutputTarget> report = report_file(options)) {
    report->write(junit_report(policy->name, outcomes));
    report->finish();
  }
  print(tap_report(outcomes));
  const bool all =
      std::ranges::all_of(outcomes, [](const CaseOutcome& outcome) { return outcome.as_expected; });
  return all && !(outcomes.empty() && options.fail_on_empty) ? kExitFine : kExitFound;
}

}  // namespace

RunCommand add_policy_test(CommandParser& parser) {
  const auto options = std::make_shared<TestOptions>();
  options->env = add_env_option(parser);
  options->other_host = add_other_host_option(parser);
  parser.add_option("FILE", options->file, "The policy file").required().type_name("FILE");
  parser.add_option("CASES", options->cases, "The table of cases, a JSON array; - reads it")
      .required()
      .type_name("FILE|-");
  parser.add_option("--junit", options->junit, "Write the outcomes in JUnit's form too")
      .type_name("FILE")
      .not_empty();
  parser.add_flag("--fail-on-empty", options->fail_on_empty, "A table without a case fails");
  parser.footer(
      R"(A case: {"name", "tool", "sql" or "arguments", "expect": "allow"|"deny"|"approval",)"
      "\n"
      R"("reason", "table", "type"}. The server's own code judges it, without an engine. Prints TAP.)"
      "\nExit codes: 0 all as expected, 1 not, 2 it could not judge.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
