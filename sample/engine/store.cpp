#include "engine/store.h"

#include <optional>
#include <utility>

#include "base/ascii.h"
#include "engine/sql_functions.h"
#include "wire/wire.h"

namespace kova::sample {

namespace {

constexpr int kLengthLimit = 1 << 20;
constexpr int kLikePatternLimit = 1000;
constexpr int kBusyTimeoutMs = 5000;
constexpr int kBusyWaitMs = 5;
constexpr std::size_t kErrorLimit = 1000;
// About 50 microseconds of SQLite's work between two looks at the socket.
constexpr int kStepsBetweenLooks = 4000;

bool is_schema_table(const char* table) {
  return table != nullptr && equal_ignoring_case(std::string_view(table).substr(0, 7), "sqlite_");
}

bool is_engine_table(const char* table) {
  return table != nullptr && equal_ignoring_case(std::string_view(table).substr(0, 3), "AI_");
}

bool may_read(int action, const char* function) {
  switch (action) {
    case SQLITE_SELECT:
    case SQLITE_READ:
    case SQLITE_RECURSIVE:
      return true;
    case SQLITE_FUNCTION:
      return function != nullptr && !equal_ignoring_case(function, "load_extension");
    default:
      return false;
  }
}

// The engine's own tables change by its triggers alone.
bool may_change(int action, const char* table, const char* trigger) {
  const bool changes =
      action == SQLITE_INSERT || action == SQLITE_UPDATE || action == SQLITE_DELETE;
  return changes && !is_schema_table(table) && (trigger != nullptr || !is_engine_table(table));
}

bool may_drop(int action, const char* table, const char* database) {
  if (action == SQLITE_DROP_TEMP_TABLE || action == SQLITE_DROP_TEMP_INDEX) return true;
  // The removal works on the rows of the temporary schema.
  const bool in_temp = database != nullptr && std::string_view(database) == "temp";
  return in_temp && table != nullptr && (action == SQLITE_DELETE || action == SQLITE_UPDATE);
}

bool only_separators(const char* tail, const char* end) {
  while (tail < end && (is_space(*tail) || *tail == ';')) ++tail;
  return tail >= end;
}

}  // namespace

Query::Query(Query&& other) noexcept
    : store_(std::move(other.store_)),
      statement_(std::exchange(other.statement_, nullptr)),
      rights_(other.rights_) {}

Query& Query::operator=(Query&& other) noexcept {
  if (this == &other) return *this;
  close();
  store_ = std::move(other.store_);
  statement_ = std::exchange(other.statement_, nullptr);
  rights_ = other.rights_;
  return *this;
}

void Query::close() {
  sqlite3_finalize(statement_);
  statement_ = nullptr;
  store_.reset();
}

Query::Step Query::step() {
  // A statement is prepared again inside the step when the schema has changed.
  store_->rights_ = rights_;
  switch (sqlite3_step(statement_)) {
    case SQLITE_ROW:
      return Step::kRow;
    case SQLITE_DONE:
      return Step::kEnd;
    default:
      store_->fail_with_database_words();
      return Step::kFailed;
  }
}

std::string_view Query::column_name(int column) const {
  const char* name = sqlite3_column_name(statement_, column);
  return name != nullptr ? name : "";
}

std::string_view Query::cell(int column) const {
  const void* text = sqlite3_column_text(statement_, column);
  if (text == nullptr) return {};
  return {static_cast<const char*>(text),
          static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

std::int64_t Query::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

std::string_view Query::blob(int column) const {
  const void* bytes = sqlite3_column_blob(statement_, column);
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes),
          static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

bool Query::bind(int parameter, std::int64_t number) {
  return sqlite3_bind_int64(statement_, parameter, number) == SQLITE_OK;
}

bool Query::bind_blob(int parameter, std::string_view bytes) {
  return sqlite3_bind_blob64(statement_, parameter, bytes.data(), bytes.size(), SQLITE_TRANSIENT) ==
         SQLITE_OK;
}

bool Query::bind_cell(int parameter, const Query& from, int column) {
  return sqlite3_bind_value(statement_, parameter, sqlite3_column_value(from.statement_, column)) ==
         SQLITE_OK;
}

void Query::rewind() {
  sqlite3_reset(statement_);
}

bool Query::bind(int parameter, std::string_view text) {
  return sqlite3_bind_text64(statement_, parameter, text.data(), text.size(), SQLITE_TRANSIENT,
                             SQLITE_UTF8) == SQLITE_OK;
}

std::shared_ptr<Store> Store::open(const std::string& path, ClientWatch& watch,
                                   std::string& error) {
  // The constructor is private, out of make_shared's reach.
  std::shared_ptr<Store> store(new Store(watch));
  const int flags = path.empty() ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MEMORY
                                 : SQLITE_OPEN_READWRITE;
  const int opened = sqlite3_open_v2(path.empty() ? ":memory:" : path.c_str(), &store->database_,
                                     flags | SQLITE_OPEN_NOMUTEX, nullptr);
  if (opened == SQLITE_OK && store->configure()) return store;
  if (store->error_.empty()) store->fail_with_database_words();
  error = store->error_;
  return nullptr;
}

Store::~Store() {
  sqlite3_close_v2(database_);
  if (all_temporary_tables_ != nullptr) *all_temporary_tables_ -= temporary_tables_;
}

bool Store::configure() {
  sqlite3_limit(database_, SQLITE_LIMIT_LENGTH, kLengthLimit);
  sqlite3_limit(database_, SQLITE_LIMIT_SQL_LENGTH, static_cast<int>(wire::kStatementLimit));
  sqlite3_limit(database_, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, kLikePatternLimit);
  sqlite3_limit(database_, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_db_config(database_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(database_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(database_, SQLITE_DBCONFIG_ENABLE_FKEY, 1, nullptr);
  if (!add_sql_functions(database_)) return false;
  sqlite3_busy_handler(database_, &Store::on_busy, this);
  sqlite3_progress_handler(database_, kStepsBetweenLooks, &Store::on_progress, this);
  if (sqlite3_set_authorizer(database_, &Store::authorize, this) != SQLITE_OK) return false;
  // Fails when the file cannot be written or is busy, which a reader can live with; when it is no
  // database, reading its schema says so.
  sqlite3_exec(database_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  return run("SELECT 1 FROM sqlite_schema LIMIT 1") && run("PRAGMA query_only=1");
}

bool Store::prepare(std::string_view sql, Rights rights, Query& query) {
  query.close();
  rights_ = rights;
  const char* tail = nullptr;
  const int prepared = sqlite3_prepare_v2(database_, sql.data(), static_cast<int>(sql.size()),
                                          &query.statement_, &tail);
  if (prepared != SQLITE_OK) return fail_with_database_words();
  query.store_ = shared_from_this();
  query.rights_ = rights;
  std::string_view words;
  if (query.statement_ == nullptr) {
    words = "the statement is empty";
  } else if (!only_separators(tail, sql.data() + sql.size())) {
    words = "only one statement at a time";
  } else if (rights == Rights::kRead && sqlite3_stmt_readonly(query.statement_) == 0) {
    words = "not a reading statement";
  }
  if (words.empty()) return true;
  query.close();
  return fail(words);
}

bool Store::run(const char* sql) {
  rights_ = Rights::kEngine;
  if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
  return fail_with_database_words();
}

/// Lifts the connection's write protection for a scope.
class Store::Writable {
 public:
  explicit Writable(Store& store) : store_(store) { store_.set_query_only(false); }
  ~Writable() { store_.set_query_only(true); }
  Writable(const Writable&) = delete;
  Writable& operator=(const Writable&) = delete;

 private:
  Store& store_;
};

void Store::set_query_only(bool on) {
  rights_ = Rights::kEngine;
  sqlite3_exec(database_, on ? "PRAGMA query_only=1" : "PRAGMA query_only=0", nullptr, nullptr,
               nullptr);
}

bool Store::transact(Transaction kind, const std::function<bool()>& work) {
  if (sqlite3_get_autocommit(database_) == 0) return work();
  std::optional<Writable> writable;
  if (kind != Transaction::kRead) writable.emplace(*this);
  if (!run(kind == Transaction::kChange ? "BEGIN IMMEDIATE" : "BEGIN")) return false;
  if (work() && still_wanted() && run("COMMIT")) return true;
  rights_ = Rights::kEngine;
  sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
  return false;
}

bool Store::still_wanted() {
  if (!watch_.gone()) return true;
  fail("interrupted");
  failure_ = SQLITE_INTERRUPT;
  return false;
}

bool Store::change(std::string_view sql, Rights rights, std::int64_t& rows) {
  Query query;
  if (!prepare(sql, rights, query)) return false;
  if (query.columns() != 0) return fail("RETURNING is not supported");
  const auto kind =
      rights == Rights::kDropTemporary ? Transaction::kTemporary : Transaction::kChange;
  const bool done = transact(kind, [&] {
    const bool changed = query.step() == Query::Step::kEnd;
    query.close();
    return changed;
  });
  rows = sqlite3_changes64(database_);
  return done;
}

void Store::count_temporary_tables(const std::shared_ptr<std::atomic<std::int64_t>>& total) {
  Query count;
  if (!prepare("SELECT COUNT(*) FROM sqlite_temp_schema WHERE type = 'table'", Rights::kEngine,
               count) ||
      count.step() != Query::Step::kRow) {
    return;
  }
  all_temporary_tables_ = total;
  *total += count.integer(0) - temporary_tables_;
  temporary_tables_ = count.integer(0);
}

bool Store::fail(std::string_view words) {
  error_ = words.substr(0, kErrorLimit);
  failure_ = SQLITE_ERROR;
  return false;
}

bool Store::fail_with_database_words() {
  fail(sqlite3_errmsg(database_));
  failure_ = sqlite3_errcode(database_) & 0xFF;
  return false;
}

int Store::authorize(void* store, int action, const char* first, const char* second,
                     const char* database, const char* trigger) {
  bool allowed = false;
  switch (static_cast<Store*>(store)->rights_) {
    case Rights::kEngine:
      allowed = true;
      break;
    case Rights::kRead:
      allowed = may_read(action, second);
      break;
    case Rights::kChange:
      allowed = may_read(action, second) || may_change(action, first, trigger);
      break;
    case Rights::kDropTemporary:
      allowed = may_read(action, second) || may_drop(action, first, database);
      break;
  }
  return allowed ? SQLITE_OK : SQLITE_DENY;
}

int Store::on_progress(void* store) {
  return static_cast<Store*>(store)->watch_.gone() ? 1 : 0;
}

int Store::on_busy(void* store, int earlier_calls) {
  if (earlier_calls * kBusyWaitMs >= kBusyTimeoutMs) return 0;
  return static_cast<Store*>(store)->watch_.gone_within(kBusyWaitMs) ? 0 : 1;
}

}  // namespace kova::sample
