#include "admin/policy/check.h"

#include <fmt/format.h>

#include <memory>
#include <string>

#include "admin/common/deployment.h"
#include "admin/common/json_output.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "admin/policy/policy_source.h"

namespace kova::admin {

namespace {

struct CheckOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<bool> other_host;
  std::string file;
  bool json = false;
};

void print_as_json(const PolicyVerdict& verdict) {
  Json found = {{"valid", verdict.policy->valid},
                {"message", nullptr},
                {"line", nullptr},
                {"column", nullptr}};
  if (!verdict.policy->valid) found["message"] = verdict.policy->error;
  if (!verdict.policy->valid && verdict.line != 0) {
    found["line"] = verdict.line;
    found["column"] = verdict.column;
  }
  print_json(found);
}

int run(const CheckOptions& options) {
  use_deployment(*options.env);
  const PolicyVerdict verdict =
      judge_policy(options.file, Launch::kEnvironment, *options.other_host);
  if (options.json) {
    print_as_json(verdict);
  } else if (verdict.policy->valid) {
    print(printable(fmt::format("{}: valid, policy {}", options.file, verdict.policy->name)) +
          '\n');
  } else {
    print(printable(fault_text(options.file, verdict)) + '\n');
  }
  return verdict.policy->valid ? kExitFine : kExitFound;
}

}  // namespace

RunCommand add_policy_check(CommandParser& parser) {
  const auto options = std::make_shared<CheckOptions>();
  options->env = add_env_option(parser);
  options->other_host = add_other_host_option(parser);
  parser.add_option("FILE", options->file, "The policy file").required().type_name("FILE");
  parser.add_flag("--json", options->json, R"(Print {"valid","message","line","column"})");
  parser.footer(
      "Judges the file as the server's loader does. The launch identity is compared when the\n"
      "environment, or --env FILE, sets one of its three variables.\n"
      "Exit codes: 0 valid, 1 not valid, 2 the file cannot be read.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
