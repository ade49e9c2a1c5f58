#include "engine/dialect.h"

#include <algorithm>
#include <string>

#include "base/ascii.h"
#include "engine/ai/jobs.h"
#include "engine/ai/statements.h"
#include "engine/statement_text.h"

namespace kova::sample {

namespace {

constexpr std::size_t kUnknownShown = 20;
constexpr std::size_t kLoggedLength = 200;

struct Statement {
  std::string_view text;
  std::string_view rest;  ///< what follows the first word
};

Outcome query_for(Session& session, std::string_view sql, std::string_view parameter) {
  Query query = session.store().prepare(sql);
  query.bind(1, parameter);
  return {.query = std::move(query)};
}

// The one word that is left of a statement, else the failure.
std::string_view only_word(std::string_view rest, const char* otherwise) {
  std::string_view word;
  rest = unterminated(rest);
  if (!take_last_word(rest, word)) throw Failure(otherwise);
  return word;
}

Outcome run_use(Session& session, const Statement& statement) {
  session.use(only_word(statement.rest, "expected: use NAME;"));
  return {};
}

// The password is everything between the first comma and the last ";", as it stands.
Outcome run_login(Session& session, const Statement& statement) {
  std::string_view rest = statement.rest;
  const std::size_t end = rest.rfind(';');
  if (end != std::string_view::npos && trimmed(rest.substr(end + 1)).empty()) {
    rest = rest.substr(0, end);
  }
  const std::size_t comma = rest.find(',');
  if (comma == std::string_view::npos) throw Failure("expected: login USER,PASSWORD;");
  session.login(trimmed(rest.substr(0, comma)), rest.substr(comma + 1));
  return {};
}

Outcome list_databases(Session& session) {
  std::string names = "[";
  for (const std::string& name : session.databases().names()) {
    if (names.size() > 1) names += ',';
    names += '"' + name + '"';
  }
  return query_for(session, "SELECT value AS NAME FROM json_each(?1)", names + ']');
}

Outcome list_tables(Session& session) {
  return {.query = session.store().prepare(
              "SELECT name AS NAME, upper(type) AS TYPE FROM"
              " (SELECT name, type FROM sqlite_schema"
              "  UNION ALL SELECT name, 'temporary table' FROM sqlite_temp_schema"
              "  WHERE type = 'table')"
              " WHERE type IN ('table', 'view', 'temporary table')"
              " AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'"
              " AND name NOT LIKE 'AI\\_%' ESCAPE '\\' ORDER BY name")};
}

Outcome run_list(Session& session, const Statement& statement) {
  constexpr const char* kForm = "expected: list database; or list table;";
  const std::string_view what = only_word(statement.rest, kForm);
  if (equal_ignoring_case(what, "database")) return list_databases(session);
  if (equal_ignoring_case(what, "table")) return list_tables(session);
  throw Failure(kForm);
}

Outcome run_describe(Session& session, const Statement& statement) {
  const std::string_view table = only_word(statement.rest, "expected: describe TABLE;");
  Outcome known = query_for(session,
                            "SELECT 1 FROM (SELECT name, type FROM sqlite_schema UNION ALL"
                            " SELECT name, type FROM sqlite_temp_schema)"
                            " WHERE name = ?1 COLLATE NOCASE AND type IN ('table', 'view')",
                            table);
  if (!known.query.step()) throw Failure("no such table: " + std::string(table));
  return query_for(session,
                   "SELECT name AS NAME, type AS TYPE,"
                   " CASE WHEN \"notnull\" OR pk THEN 'NO' ELSE 'YES' END AS NULLABLE,"
                   " dflt_value AS DEFAULT_VALUE, pk AS KEY_POSITION"
                   " FROM pragma_table_info(?1)",
                   table);
}

Outcome run_select(Session& session, const Statement& statement) {
  return {.query = session.store().prepare(statement.text, Rights::kRead)};
}

Outcome run_change(Session& session, const Statement& statement, const char* done) {
  Store& store = session.store();
  const std::int64_t changed = store.change(statement.text, Rights::kChange);
  // Jobs that cannot run now wait for the next statement about their collection.
  static_cast<void>(try_to_bring_up_to_date(store));
  return {.status = std::to_string(changed) + (changed == 1 ? " row " : " rows ") + done,
          .query = {}};
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
  constexpr const char* kForm = "expected: drop table NAME;";
  std::string_view rest = unterminated(statement.rest);
  if (!take_keyword(rest, "table")) throw Failure(kForm);
  const std::string table(only_word(rest, kForm));
  Outcome known = query_for(session,
                            "SELECT 1 FROM sqlite_temp_schema"
                            " WHERE type = 'table' AND name = ?1 COLLATE NOCASE",
                            table);
  if (!known.query.step()) throw Failure("no such temporary table: " + table);
  known.query.close();
  session.store().change("DROP TABLE temp.\"" + table + '"', Rights::kDropTemporary);
  session.count_temporary_tables(-1);
  return {};
}

Outcome run_search_statement(Session& session, const Statement& statement) {
  return run_search(session, statement.rest);
}

Outcome run_show_statement(Session& session, const Statement& statement) {
  return run_show(session, statement.rest);
}

/// A statement of the dialect: its first word, whether it may come before the login, what runs it.
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

// The word that a statement begins with, or its one byte that begins no word. No more than that:
// the message gets into the log, and a mistyped statement may hold a password.
std::string beginning(std::string_view statement) {
  statement = trimmed(statement);
  std::string_view rest = statement;
  const std::size_t length = std::max<std::size_t>(take_word(rest).size(), 1);
  return std::string(statement.substr(0, std::min(length, kUnknownShown)));
}

}  // namespace

Outcome run_statement(Session& session, std::string_view statement) {
  if (statement.find('\0') != std::string_view::npos) throw Failure("the statement holds a NUL");
  if (unterminated(statement).empty()) throw Failure("the statement is empty");
  std::string_view rest = statement;
  const StatementKind* kind = find_statement(take_word(rest));
  if (!session.logged_in() && (kind == nullptr || !kind->before_login)) {
    throw Failure("not logged in");
  }
  if (kind == nullptr) throw Failure("unknown statement: " + beginning(statement));
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
