#include "admin/policy/engine_columns.h"

#include <fmt/format.h>

#include <utility>

#include "admin/common/server_path.h"
#include "admin/doctor/login_steps.h"
#include "admin/doctor/server_check.h"
#include "admin/init/engine_tables.h"
#include "db/session.h"
#include "db/statement.h"

namespace kova::admin {

namespace {

/// The first column of a statement's rows; nothing when it fails or has more rows than can be had.
std::optional<std::vector<std::string>> ask(DbSession& session, const std::string& statement) {
  StatementResult result;
  if (!execute_statement(session, statement.c_str(), kMaxRowsLimit, result) || result.truncated) {
    return std::nullopt;
  }
  return names_in(result.text);
}

EngineColumns describe_all(DbSession& session) {
  const auto names = ask(session, "list table;");
  if (!names) return {.tables = std::nullopt, .failure = "the list of its tables is not complete"};
  std::vector<TableColumns> tables;
  for (const std::string& name : *names) {
    auto columns = ask(session, fmt::format("describe {};", name));
    if (!columns) {
      return {.tables = std::nullopt, .failure = fmt::format("it does not describe {}", name)};
    }
    tables.push_back({.table = name, .columns = std::move(*columns)});
  }
  return {.tables = std::move(tables), .failure = {}};
}

}  // namespace

EngineColumns ask_engine_columns() {
  if (first_bad_login_setting() != LoginSetting::kNone) return {};
  std::string library;
  const Check found = check_client_library(server_beside(), library);
  if (found.status == CheckStatus::kFail) return {.tables = std::nullopt, .failure = found.detail};
  DbSession session;
  session.load_library = checked_client_library;
  EngineColumns answer;
  if (ensure_session(session)) {
    answer = describe_all(session);
  } else {
    answer.failure = "it cannot be logged in to; kova-admin doctor says why";
  }
  disconnect(session);
  return answer;
}

}  // namespace kova::admin
