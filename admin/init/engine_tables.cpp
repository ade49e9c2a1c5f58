#include "admin/init/engine_tables.h"

#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "admin/common/refusal.h"
#include "admin/common/server_path.h"
#include "admin/doctor/login_steps.h"
#include "admin/doctor/server_check.h"
#include "db/session.h"
#include "db/statement.h"
#include "platform/environment_change.h"
#include "policy/names.h"

namespace kova::admin {

namespace {

using nlohmann::json;

void set_variable(const char* name, const char* value) {
  if (!set_environment_variable(name, value)) throw Refusal(fmt::format("{} cannot be set", name));
}

[[noreturn]] void refuse_login() {
  const std::vector<Check> steps = check_login(checked_client_library);
  throw Refusal(fmt::format("{}: {} (--offline writes without asking the engine)",
                            steps.back().name, steps.back().detail));
}

}  // namespace

// The first column of a row is the table's name; what is no name that a policy can hold is left
// out.
Names names_in(std::string_view result) {
  Names names;
  const json document = json::parse(result, nullptr, false);
  if (!document.is_object() || !document.contains("rows")) return names;
  for (const json& row : document.at("rows")) {
    if (!row.is_array() || row.empty() || !row.front().is_string()) continue;
    const auto& name = row.front().get_ref<const std::string&>();
    if (policy_safe_name(name)) names.push_back(name);
  }
  return names;
}

void use_login(const Setup& setup) {
  set_variable("KOVA_MCP_SERVER", setup.server.c_str());
  set_variable("KOVA_MCP_PORT", setup.port.c_str());
  set_variable("KOVA_MCP_DATABASE", setup.database.c_str());
  set_variable("KOVA_MCP_USER", setup.user.c_str());
  set_variable("KOVA_MCP_PASSWORD", setup.password.c_str());
  const LoginSetting bad = first_bad_login_setting();
  if (bad != LoginSetting::kNone) throw Refusal(setting_fault(bad));
}

Names engine_tables(const Setup& setup) {
  use_login(setup);
  std::string library;
  const Check found = check_client_library(server_beside(), library);
  if (found.status == CheckStatus::kFail) {
    throw Refusal(fmt::format("{} (--offline writes without asking the engine)", found.detail));
  }
  DbSession session;
  session.load_library = checked_client_library;
  StatementResult result;
  const bool answered =
      ensure_session(session) && execute_statement(session, "list table;", kMaxRowsLimit, result);
  Names names = answered ? names_in(result.text) : Names();
  disconnect(session);
  if (!answered) refuse_login();
  return names;
}

}  // namespace kova::admin
