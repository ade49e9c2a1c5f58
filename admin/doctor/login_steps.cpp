#include "admin/doctor/login_steps.h"

#include <fmt/format.h>

#include "platform/environment.h"

namespace kova::admin {

namespace {

/// What the report says of one step. `{}` in a failure stands for the engine's address.
struct StepTexts {
  LoginStep step;
  const char* name;
  const char* passed;
  const char* failed;
  const char* advice;
};

constexpr StepTexts kSteps[] = {
    {.step = LoginStep::kSettings,
     .name = "login.settings",
     .passed = "the five values are within their limits",
     .failed = "",
     .advice = "mend the named variable"},
    {.step = LoginStep::kResolve,
     .name = "login.resolve",
     .passed = "the host has an address",
     .failed = "{} cannot be resolved",
     .advice = "see KOVA_MCP_SERVER for a typing error, KOVA_MCP_PORT for a number or a service's "
               "name that this machine knows, and whether it reaches its name server"},
    {.step = LoginStep::kConnect,
     .name = "login.connect",
     .passed = "a connection is taken",
     .failed = "{} takes no connection within 3 seconds",
     .advice = "see that the engine runs, that KOVA_MCP_PORT is its port, and that no firewall "
               "stands between"},
    {.step = LoginStep::kLoad,
     .name = "login.load",
     .passed = "the client library is loaded",
     .failed = "the client library cannot be used",
     .advice = "see what client-library says"},
    {.step = LoginStep::kStart,
     .name = "login.start",
     .passed = "the client library has connected",
     .failed = "the client library does not connect to {}",
     .advice = "see that another program does not hold that port, that library and engine are of "
               "one version, and how many connections the engine takes"},
    {.step = LoginStep::kUse,
     .name = "login.use",
     .passed = "the database is chosen",
     .failed = "the engine refuses the database",
     .advice = "see KOVA_MCP_DATABASE for a typing error, and that the engine has opened that "
               "database"},
    {.step = LoginStep::kLogin,
     .name = "login.login",
     .passed = "logged in",
     .failed = "the engine refuses the login",
     .advice = "see KOVA_MCP_USER and KOVA_MCP_PASSWORD, that the account is not locked, and that "
               "it may use this database"},
};

void fail_step(Findings& findings, const StepTexts& texts, LoginSetting setting) {
  if (texts.step == LoginStep::kSettings) {
    findings.fail(setting_fault(setting), texts.advice);
    return;
  }
  const std::string address = fmt::format("{}:{}", EnvironmentValue("KOVA_MCP_SERVER").view(),
                                          EnvironmentValue("KOVA_MCP_PORT").view());
  std::string detail = fmt::format(fmt::runtime(texts.failed), address);
  if (texts.step == LoginStep::kUse) {
    const EnvironmentValue database("KOVA_MCP_DATABASE");
    detail += fmt::format(" \"{}\"", database.view().empty() ? "default" : database.view());
  }
  findings.fail(detail, texts.advice);
}

}  // namespace

std::string setting_fault(LoginSetting setting) {
  const LoginRule& rule = login_rule(setting);
  const EnvironmentValue value(rule.variable);
  const std::size_t size = value.view().size();
  if (size == 0) return fmt::format("{} is not set", rule.variable);
  if (size > rule.limit) {
    return fmt::format("{} has {} bytes, at most {} are allowed", rule.variable, size, rule.limit);
  }
  return fmt::format("{} holds one of \"{}\"", rule.variable, rule.forbidden);
}

std::vector<Check> check_login(DbSession::Loader* load_library) {
  DbSession session;
  session.load_library = load_library;
  const LoginStep failed = ensure_session(session) ? LoginStep::kNone : session.failed_step;
  disconnect(session);
  std::vector<Check> checks;
  for (const StepTexts& texts : kSteps) {
    Findings findings(texts.name);
    if (texts.step == failed) {
      fail_step(findings, texts, session.failed_setting);
    } else {
      findings.note(texts.passed);
    }
    checks.push_back(findings.finish());
    if (texts.step == failed) break;
  }
  return checks;
}

}  // namespace kova::admin
