#include "admin/policy/diff.h"

#include <fmt/format.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "admin/common/deployment.h"
#include "admin/common/json_output.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "admin/policy/cases.h"
#include "admin/policy/differences.h"
#include "admin/policy/policy_source.h"
#include "policy/policy.h"

namespace kova::admin {

namespace {

struct DiffOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<bool> other_host;
  std::string before;
  std::string after;
  std::string cases;
  bool json = false;
  bool fail_on_widening = false;
};

/// A case on which the policies do not agree.
struct Flip {
  std::string name;
  Verdict before;
  Verdict after;
};

std::vector<Flip> flips_of(const McpPolicy& before, const McpPolicy& after,
                           const std::vector<PolicyCase>& cases) {
  CallJudge old_judge(before);
  CallJudge new_judge(after);
  std::vector<Flip> flips;
  for (const PolicyCase& each : cases) {
    const Flip flip{.name = each.name,
                    .before = old_judge.call(each.tool, each.arguments).verdict,
                    .after = new_judge.call(each.tool, each.arguments).verdict};
    if (flip.before != flip.after) flips.push_back(flip);
  }
  return flips;
}

Json shifts_json(const std::vector<Shift>& shifts) {
  Json list = Json::array();
  for (const Shift& shift : shifts) list.push_back({{"key", shift.key}, {"value", shift.value}});
  return list;
}

void print_as_json(const PolicyDifferences& differences, const std::vector<Flip>& flips) {
  Json changed = Json::array();
  for (const Change& change : differences.changed) {
    changed.push_back({{"key", change.key}, {"old", change.before}, {"new", change.after}});
  }
  Json turned = Json::array();
  for (const Flip& flip : flips) {
    turned.push_back({{"case", flip.name},
                      {"old", verdict_name(flip.before)},
                      {"new", verdict_name(flip.after)}});
  }
  print_json({{"widened", shifts_json(differences.widened)},
              {"narrowed", shifts_json(differences.narrowed)},
              {"changed", changed},
              {"flips", turned}});
}

std::string shifts_text(std::string_view word, const std::vector<Shift>& shifts) {
  std::string text;
  for (const Shift& shift : shifts) {
    text += fmt::format("{:<8}  {}: {}\n", word, shift.key, shift.sentence);
  }
  return text;
}

std::string differences_text(const PolicyDifferences& differences, const std::vector<Flip>& flips) {
  if (differences.none() && flips.empty()) return "The policies are the same.\n";
  std::string text =
      shifts_text("widens", differences.widened) + shifts_text("narrows", differences.narrowed);
  for (const Change& change : differences.changed) {
    text += fmt::format("{:<8}  {}: \"{}\" instead of \"{}\"\n", "changes", change.key,
                        printable(change.after), printable(change.before));
  }
  for (const Flip& flip : flips) {
    text += fmt::format("{:<8}  {}: {} instead of {}\n", "flips", printable(flip.name),
                        verdict_name(flip.after), verdict_name(flip.before));
  }
  return text;
}

int run(const DiffOptions& options) {
  use_deployment(*options.env);
  const auto before = need_policy(options.before, Launch::kAny, *options.other_host);
  const auto after = need_policy(options.after, Launch::kAny, *options.other_host);
  std::vector<PolicyCase> cases;
  if (!options.cases.empty()) cases = read_cases(options.cases);
  const PolicyDifferences differences = differences_of(*before, *after);
  const std::vector<Flip> flips = flips_of(*before, *after, cases);
  if (options.json) {
    print_as_json(differences, flips);
  } else {
    print(differences_text(differences, flips));
  }
  const bool found = options.fail_on_widening ? !differences.widened.empty()
                                              : !differences.none() || !flips.empty();
  return found ? kExitFound : kExitFine;
}

}  // namespace

RunCommand add_policy_diff(CommandParser& parser) {
  const auto options = std::make_shared<DiffOptions>();
  options->env = add_env_option(parser);
  options->other_host = add_other_host_option(parser);
  parser.add_option("OLD", options->before, "The policy file before").required().type_name("FILE");
  parser.add_option("NEW", options->after, "The policy file after").required().type_name("FILE");
  parser.add_option("CASES", options->cases, "A table of cases: which of them flip; - reads it")
      .type_name("FILE|-")
      .not_empty();
  parser.add_flag("--json", options->json,
                  R"(Print {"widened": [{"key", "value"}], "narrowed": [...], )"
                  R"("changed": [{"key", "old", "new"}], "flips": [{"case", "old", "new"}]})");
  parser.add_flag("--fail-on-widening", options->fail_on_widening,
                  "End with 1 only when something widened");
  parser.footer(
      "Launch identities are compared with each other, not with the environment.\n"
      "Exit codes: 0 the same, 1 different, 2 it could not compare.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
