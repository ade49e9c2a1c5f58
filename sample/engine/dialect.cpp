#include "engine/dialect.h"

#include <algorithm>
#include <string>

#include "base/ascii.h"
#include "engine/ai_statements.h"
#include "engine/statement_text.h"

namespace kova::sample {

namespace {

constexpr std::size_t kUnknownShown = 20;
constexpr std::size_t kLoggedLength = 200;

struct Statement {
  std::string_view text;
  std::string_view rest;  ///< what follows the first word
};

Outcome query_store(Session& session, std::string_view sql, Rights rights,
                    std::string_view parameter = {}) {
  std::string error;
  Store* store = session.store(error);
  if (store == nullptr) return failed(error);
  Outcome outcome = succeeded("OK");
  if (!store->prepare(sql, rights, outcome.query)) return failed(store->error());
  if (parameter.data() != nullptr && !outcome.query.bind(1, parameter)) {
    return failed(store->error());
  }
  return outcome;
}

Outcome change_store(Session& session, std::string_view sql, Rights rights, std::int64_t& changed) {
  std::string error;
  Store* store = session.store(error);
  if (store == nullptr) return failed(error);
  const bool done = store->change(sql, rights, changed);
  if (rights == Rights::kDropTemporary) session.count_temporary_tables();
  if (rights == Rights::kChange) session.databases().run_jobs();
  return done ? succeeded("OK") : failed(store->error());
}

Outcome run_use(Session& session, const Statement& statement) {
  std::string_view name;
  std::string_view rest = unterminated(statement.rest);
  if (!take_last_word(rest, name)) return failed("expected: use NAME;");
  return session.use(name);
}

// The password is everything between the first comma and the last ";", as it stands.
Outcome run_login(Session& session, const Statement& statement) {
  std::string_view rest = statement.rest;
  const std::size_t end = rest.rfind(';');
  if (end != std::string_view::npos && trimmed(rest.substr(end + 1)).empty()) {
    rest = rest.substr(0, end);
  }
  const std::size_t comma = rest.find(',');
  if (comma == std::string_view::npos) return failed("expected: login USER,PASSWORD;");
  return session.login(trimmed(rest.substr(0, comma)), rest.substr(comma + 1));
}

Outcome list_databases(Session& session) {
  std::string names = "[";
  for (const std::string& name : session.databases().names()) {
    if (names.size() > 1) names += ',';
    names += '"' + name + '"';
  }
  names += ']';
  return query_store(session, "SELECT value AS NAME FROM json_each(?1)", Rights::kEngine, names);
}

Outcome list_tables(Session& session) {
  return query_store(session,
                     "SELECT name AS NAME, upper(type) AS TYPE FROM"
                     " (SELECT name, type FROM sqlite_schema"
                     "  UNION ALL SELECT name, 'temporary table' FROM sqlite_temp_schema"
                     "  WHERE type = 'table')"
                     " WHERE type IN ('table', 'view', 'temporary table')"
                     " AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'"
                     " AND name NOT LIKE 'AI\\_%' ESCAPE '\\' ORDER BY name",
                     Rights::kEngine);
}

Outcome run_list(Session& session, const Statement& statement) {
  std::string_view what;
  std::string_view rest = unterminated(statement.rest);
  if (take_last_word(rest, what)) {
    if (equal_ignoring_case(what, "database")) return list_databases(session);
    if (equal_ignoring_case(what, "table")) return list_tables(session);
  }
  return failed("expected: list database; or list table;");
}

Outcome run_describe(Session& session, const Statement& statement) {
  std::string_view table;
  std::string_view rest = unterminated(statement.rest);
  if (!take_last_word(rest, table)) return failed("expected: describe TABLE;");
  Outcome known = query_store(session,
                              "SELECT 1 FROM (SELECT name, type FROM sqlite_schema UNION ALL"
                              " SELECT name, type FROM sqlite_temp_schema)"
                              " WHERE name = ?1 COLLATE NOCASE AND type IN ('table', 'view')",
                              Rights::kEngine, table);
  if (!known.success) return known;
  switch (known.query.step()) {
    case Query::Step::kFailed:
      return failed(known.query.store().error());
    case Query::Step::kEnd:
      return failed("no such table: " + std::string(table));
    case Query::Step::kRow:
      break;
  }
  return query_store(session,
                     "SELECT name AS NAME, type AS TYPE,"
                     " CASE WHEN \"notnull\" OR pk THEN 'NO' ELSE 'YES' END AS NULLABLE,"
                     " dflt_value AS DEFAULT_VALUE, pk AS KEY_POSITION"
                     " FROM pragma_table_info(?1)",
                     Rights::kEngine, table);
}

Outcome run_select(Session& session, const Statement& statement) {
  return query_store(session, statement.text, Rights::kRead);
}

Outcome run_change(Session& session, const Statement& statement, std::string_view done) {
  std::int64_t changed = 0;
  Outcome outcome = change_store(session, statement.text, Rights::kChange, changed);
  if (!outcome.success) return outcome;
  return succeeded(std::to_string(changed) + (changed == 1 ? " row " : " rows ") +
                   std::string(done));
}

Outcome run_insert(Session& session, const Statement& statement) {
  return run_change(session, statement, "inserted");
}

Outcome run_update(Session& session, const Statement& statement) {
  return run_change(session, statement, "updated");
}

Outcome run_delete(Session& session, const Statement& statement) {
  return run_change(session, statement, "deleted");
}

Outcome run_drop(Session& session, const Statement& statement) {
  std::string_view table;
  std::string_view rest = unterminated(statement.rest);
  if (!equal_ignoring_case(take_word(rest), "table") || !take_last_word(rest, table)) {
    return failed("expected: drop table NAME;");
  }
  Outcome known = query_store(session,
                              "SELECT 1 FROM sqlite_temp_schema"
                              " WHERE type = 'table' AND name = ?1 COLLATE NOCASE",
                              Rights::kEngine, table);
  if (!known.success) return known;
  if (known.query.step() != Query::Step::kRow) {
    return failed("no such temporary table: " + std::string(table));
  }
  known.query.close();
  std::int64_t changed = 0;
  return change_store(session, "DROP TABLE temp.\"" + std::string(table) + '"',
                      Rights::kDropTemporary, changed);
}

Outcome run_search_statement(Session& session, const Statement& statement) {
  return run_search(session, statement.rest);
}

Outcome run_show_statement(Session& session, const Statement& statement) {
  return run_show(session, statement.rest);
}

/// A statement of the dialect: its first word, whether it is answered before the login, what runs
/// it.
struct StatementKind {
  std::string_view word;
  bool before_login;
  Outcome (*run)(Session& session, const Statement& statement);
};

constexpr StatementKind kStatements[] = {
    // The session.
    {"USE", true, run_use},
    {"LOGIN", true, run_login},
    // The catalogue.
    {"LIST", false, run_list},
    {"DESCRIBE", false, run_describe},
    // SQL.
    {"SELECT", false, run_select},
    {"INSERT", false, run_insert},
    {"UPDATE", false, run_update},
    {"DELETE", false, run_delete},
    {"DROP", false, run_drop},
    // The AI collections.
    {"SEARCH", false, run_search_statement},
    {"SHOW", false, run_show_statement},
};

const StatementKind* find_statement(std::string_view word) {
  const auto* found =
      std::find_if(std::begin(kStatements), std::end(kStatements),
                   [&](const StatementKind& kind) { return equal_ignoring_case(kind.word, word); });
  return found != std::end(kStatements) ? found : nullptr;
}

// The word that a statement begins with, or the one byte that is none. No more of it: an error's
// text gets into the log, and what nobody understands may hold a password.
std::string beginning(std::string_view statement) {
  statement = trimmed(statement);
  std::string_view rest = statement;
  const std::size_t length = std::max<std::size_t>(take_word(rest).size(), 1);
  return std::string(statement.substr(0, std::min(length, kUnknownShown)));
}

}  // namespace

Outcome run_statement(Session& session, std::string_view statement) {
  if (statement.find('\0') != std::string_view::npos) return failed("the statement holds a NUL");
  if (unterminated(statement).empty()) return failed("the statement is empty");
  std::string_view rest = statement;
  const StatementKind* kind = find_statement(take_word(rest));
  if (!session.logged_in() && (kind == nullptr || !kind->before_login)) {
    return failed("not logged in");
  }
  if (kind == nullptr) return failed("unknown statement: " + beginning(statement));
  return kind->run(session, {.text = statement, .rest = rest});
}

std::string loggable(std::string_view statement) {
  std::string_view rest = statement;
  const StatementKind* kind = find_statement(take_word(rest));
  if (kind == nullptr) return "(unknown statement)";
  // These, and a mistyped one that begins like them, may hold a password.
  if (kind->before_login) return std::string(kind->word);
  std::string text(trimmed(statement));
  if (text.size() > kLoggedLength) text.replace(kLoggedLength, std::string::npos, "...");
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c >= 0 && c < ' '; }, ' ');
  return text;
}

}  // namespace kova::sample
