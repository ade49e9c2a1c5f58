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

/// The login's values: the variable, the option that gives it, and the setting of the session.
struct LoginValue {
  LoginSetting setting;
  const char* variable;
  const char* option;
};

constexpr LoginValue kLoginValues[] = {
    {.setting = LoginSetting::kServer, .variable = "KOVA_MCP_SERVER", .option = "--server"},
    {.setting = LoginSetting::kPort, .variable = "KOVA_MCP_PORT", .option = "--port"},
    {.setting = LoginSetting::kDatabase, .variable = "KOVA_MCP_DATABASE", .option = "--database"},
    {.setting = LoginSetting::kUser, .variable = "KOVA_MCP_USER", .option = "--user"},
    {.setting = LoginSetting::kPassword,
     .variable = "KOVA_MCP_PASSWORD",
     .option = "--password-file"},
};

const char* value_in(const Setup& setup, LoginSetting setting) {
  switch (setting) {
    case LoginSetting::kServer:
      return setup.server.c_str();
    case LoginSetting::kPort:
      return setup.port.c_str();
    case LoginSetting::kDatabase:
      return setup.database.c_str();
    case LoginSetting::kUser:
      return setup.user.c_str();
    case LoginSetting::kPassword:
    case LoginSetting::kNone:
      break;
  }
  return setup.password.c_str();
}

void clear_login() {
  for (const LoginValue& value : kLoginValues) clear_environment_variable(value.variable);
}

void set_login(const Setup& setup) {
  for (const LoginValue& value : kLoginValues) {
    if (!set_environment_variable(value.variable, value_in(setup, value.setting))) {
      throw Refusal(fmt::format("{}: the value cannot be used", value.option));
    }
  }
  const LoginSetting bad = first_bad_login_setting();
  for (const LoginValue& value : kLoginValues) {
    if (value.setting == bad) {
      throw Refusal(fmt::format("{}: {}", value.option, setting_fault(bad)));
    }
  }
}

[[noreturn]] void refuse_login() {
  const std::vector<Check> steps = check_login(checked_client_library);
  if (steps.back().status != CheckStatus::kFail) {
    throw Refusal("the engine does not list its tables (--offline writes without asking it)");
  }
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

LoginInUse::LoginInUse(const Setup& setup) {
  try {
    set_login(setup);
  } catch (const Refusal&) {
    clear_login();
    throw;
  }
}

LoginInUse::~LoginInUse() {
  clear_login();
}

Names engine_tables() {
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
