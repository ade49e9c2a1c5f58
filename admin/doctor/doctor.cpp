#include "admin/doctor/doctor.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <utility>

#include "admin/common/deployment.h"
#include "admin/common/json_output.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "admin/common/refusal.h"
#include "admin/common/server_path.h"
#include "admin/common/times.h"
#include "admin/doctor/approval_check.h"
#include "admin/doctor/audit_check.h"
#include "admin/doctor/login_steps.h"
#include "admin/doctor/machine_check.h"
#include "admin/doctor/policy_check.h"
#include "admin/doctor/server_check.h"
#include "admin/doctor/variables_check.h"
#include "platform/environment.h"
#include "policy/policy.h"

namespace kova::admin {

namespace {

struct DoctorOptions {
  std::shared_ptr<std::vector<std::string>> environment_files;
  std::string server;
  bool json = false;
};

struct StatusLook {
  const char* word;
  Colour colour;
};

StatusLook look_of(CheckStatus status) {
  switch (status) {
    case CheckStatus::kOk:
      return {.word = "ok", .colour = Colour::kGreen};
    case CheckStatus::kWarn:
      return {.word = "warn", .colour = Colour::kYellow};
    case CheckStatus::kFail:
      break;
  }
  return {.word = "FAIL", .colour = Colour::kRed};
}

void print_as_json(const std::vector<Check>& checks) {
  Json list = Json::array();
  for (const Check& check : checks) {
    list.push_back({{"name", check.name},
                    {"status", status_name(check.status)},
                    {"detail", check.detail},
                    {"advice", check.advice}});
  }
  print_json({{"status", status_name(overall_status(checks))}, {"checks", list}});
}

std::string absolute(const std::string& path) {
  return std::filesystem::absolute(path).lexically_normal().string();
}

/// The files by their absolute paths, each once; an empty one for the process's environment.
std::vector<std::string> files_of(const DoctorOptions& options) {
  if (options.environment_files->empty()) return {std::string()};
  std::vector<std::string> files;
  for (const std::string& given : *options.environment_files) {
    std::string file = absolute(given);
    if (std::ranges::find(files, file) != files.end()) {
      throw Refusal(fmt::format("--env: {} is named twice", file));
    }
    files.push_back(std::move(file));
  }
  return files;
}

int run(const DoctorOptions& options) {
  const std::string server = options.server.empty() ? server_beside() : absolute(options.server);
  std::vector<ExaminedDeployment> deployments;
  for (const std::string& file : files_of(options)) {
    const DeploymentInUse in_use(file);
    deployments.push_back(examine(server, file));
  }
  judge_shared_names(deployments);
  const std::vector<Check> checks = all_checks(deployments);
  if (options.json) {
    print_as_json(checks);
  } else {
    print(report_text(checks, stdout_has_colour()));
  }
  return overall_status(checks) == CheckStatus::kFail ? kExitFound : kExitFine;
}

}  // namespace

ExaminedDeployment examine(const std::string& server, const std::string& environment_file) {
  std::vector<Check> checks;
  DeploymentFiles files{.server = server,
                        .admin = own_executable(),
                        .client_library = {},
                        .policy = deployment_value("KOVA_MCP_POLICY"),
                        .environment = environment_file};
  const auto policy = std::make_unique<McpPolicy>();
  checks.push_back(check_server(server));
  checks.push_back(check_client_library(server, files.client_library));
  checks.push_back(check_permissions(files));
  checks.push_back(check_policy(*policy));
  std::ranges::move(check_login(checked_client_library), std::back_inserter(checks));
  checks.push_back(check_audit(now_ms()));
  checks.push_back(check_approval_secret(*policy, environment_file));
  checks.push_back(check_approval_directory(*policy));
  checks.push_back(check_switches());
  checks.push_back(check_http());
  checks.push_back(check_clock(clock_state()));
  checks.push_back(check_limits(process_limits()));
  return {.environment_file = environment_file,
          .policy = policy->name,
          .secret = SecretText(EnvironmentValue("KOVA_MCP_APPROVAL_SECRET").view()),
          .checks = std::move(checks)};
}

CheckStatus overall_status(const std::vector<Check>& checks) {
  CheckStatus worst = CheckStatus::kOk;
  for (const Check& check : checks) worst = std::max(worst, check.status);
  return worst;
}

std::string report_text(const std::vector<Check>& checks, bool has_colour) {
  std::string text;
  for (const Check& check : checks) {
    const StatusLook look = look_of(check.status);
    const std::string_view on = has_colour ? colour_code(look.colour) : "";
    const std::string_view off = has_colour ? colour_code(Colour::kNone) : "";
    text += fmt::format("{}{:<4}{}  {:<18}  {}\n", on, look.word, off, check.name,
                        printable(check.detail));
    if (!check.advice.empty()) {
      text += fmt::format("{:<6}{:<18}  -> {}\n", "", "", printable(check.advice));
    }
  }
  return text;
}

RunCommand add_doctor(CommandParser& parser) {
  const auto options = std::make_shared<DoctorOptions>();
  parser.footer(
      "Examines a deployment and says what to do about what it finds. Changes nothing.\n"
      "The deployment is that of the environment variables, or of --env FILE; of several files,\n"
      "each detail begins with its file, and equal policy names with the same secret are told.\n"
      "Exit codes: 0 nothing or warnings alone, 1 a failure, 2 it could not look.");
  options->environment_files = add_env_options(parser);
  parser
      .add_option("--server", options->server,
                  "The server's executable; kova-mcp beside kova-admin without it")
      .type_name("FILE")
      .not_empty();
  parser.add_flag("--json", options->json,
                  R"(Print {"status","checks":[{"name","status","detail","advice"}]})");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
