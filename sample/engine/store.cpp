#include "engine/store.h"

#include <utility>

#include "base/ascii.h"
#include "engine/ai/vector.h"
#include "wire/wire.h"

namespace kova::sample {

namespace {

constexpr int kLengthLimit = 1 << 20;
constexpr int kLikePatternLimit = 1000;
constexpr int kBusyTimeoutMs = 5000;
constexpr int kBusyWaitMs = 5;
constexpr std::size_t kErrorLimit = 1000;
// About 50 microseconds of SQLite's work between two checks of the socket.
constexpr int kStepsBetweenChecks = 4000;
// Reads through a mapping save a search a copy of every page.
constexpr const char* kMapFile = "PRAGMA mmap_size=268435456";

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

// The engine's own tables are changed by its triggers only.
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
      rights_(other.rights_),
      ahead_(std::exchange(other.ahead_, std::nullopt)) {}

Query& Query::operator=(Query&& other) noexcept {
  if (this == &other) return *this;
  close();
  store_ = std::move(other.store_);
  statement_ = std::exchange(other.statement_, nullptr);
  rights_ = other.rights_;
  ahead_ = std::exchange(other.ahead_, std::nullopt);
  return *this;
}

void Query::close() {
  sqlite3_finalize(statement_);
  statement_ = nullptr;
  store_.reset();
  ahead_.reset();
}

bool Query::step() {
  if (!ahead_.has_value()) return compute_row();
  return *std::exchange(ahead_, std::nullopt);
}

void Query::step_ahead() {
  ahead_ = compute_row();
}

bool Query::compute_row() {
  // The step prepares the statement again when the schema has changed, and the authorizer is asked
  // once more.
  store_->rights_ = rights_;
  const int result = sqlite3_step(statement_);
  if (result != SQLITE_ROW && result != SQLITE_DONE) store_->fail();
  return result == SQLITE_ROW;
}

void Query::run() {
  step();
  rewind();
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

Query& Query::bound(int result) {
  if (result != SQLITE_OK) store_->fail();
  return *this;
}

Query& Query::bind(int parameter, std::string_view text) {
  return bound(sqlite3_bind_text64(statement_, parameter, text.data(), text.size(),
                                   SQLITE_TRANSIENT, SQLITE_UTF8));
}

Query& Query::bind(int parameter, std::int64_t number) {
  return bound(sqlite3_bind_int64(statement_, parameter, number));
}

Query& Query::bind_blob(int parameter, std::string_view bytes) {
  return bound(
      sqlite3_bind_blob64(statement_, parameter, bytes.data(), bytes.size(), SQLITE_TRANSIENT));
}

Query& Query::bind_cell(int parameter, const Query& from, int column) {
  return bound(
      sqlite3_bind_value(statement_, parameter, sqlite3_column_value(from.statement_, column)));
}

std::shared_ptr<Store> Store::open(const std::string& path) {
  // The constructor is private, out of make_shared's reach.
  std::shared_ptr<Store> store(new Store);
  const int flags =
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (path == ":memory:" ? SQLITE_OPEN_CREATE : 0);
  if (sqlite3_open_v2(path.c_str(), &store->database_, flags, nullptr) != SQLITE_OK) store->fail();
  store->configure();
  return store;
}

Store::~Store() {
  sqlite3_close_v2(database_);
}

void Store::configure() {
  sqlite3_limit(database_, SQLITE_LIMIT_LENGTH, kLengthLimit);
  sqlite3_limit(database_, SQLITE_LIMIT_SQL_LENGTH, static_cast<int>(wire::kStatementLimit));
  sqlite3_limit(database_, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, kLikePatternLimit);
  sqlite3_limit(database_, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_db_config(database_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(database_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(database_, SQLITE_DBCONFIG_ENABLE_FKEY, 1, nullptr);
  sqlite3_busy_handler(database_, &Store::on_busy, this);
  sqlite3_progress_handler(database_, kStepsBetweenChecks, &Store::on_progress, this);
  if (!add_vector_functions(database_) ||
      sqlite3_set_authorizer(database_, &Store::authorize, this) != SQLITE_OK) {
    fail();
  }
  // Fails when the file cannot be written or is busy; reading works then, too. When the file is no
  // database, the statement after it says so.
  sqlite3_exec(database_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  run("SELECT 1 FROM sqlite_schema LIMIT 1");
  run(kMapFile);
  run("PRAGMA query_only=1");
}

Query Store::prepare(std::string_view sql, Rights rights) {
  rights_ = rights;
  Query query;
  const char* tail = nullptr;
  if (sqlite3_prepare_v2(database_, sql.data(), static_cast<int>(sql.size()), &query.statement_,
                         &tail) != SQLITE_OK) {
    fail();
  }
  query.store_ = shared_from_this();
  query.rights_ = rights;
  if (query.statement_ == nullptr) throw Failure("the statement is empty");
  if (!only_separators(tail, sql.data() + sql.size())) {
    throw Failure("only one statement at a time");
  }
  if (rights == Rights::kRead && sqlite3_stmt_readonly(query.statement_) == 0) {
    throw Failure("not a reading statement");
  }
  return query;
}

void Store::run(const char* sql) {
  rights_ = Rights::kEngine;
  if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

bool Store::has_row(std::string_view sql) {
  return prepare(sql).step();
}

bool Store::has_table(std::string_view name) {
  Query known = prepare("SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = ?1");
  return known.bind(1, name).step();
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

void Store::transact(Transaction kind, const std::function<void()>& work) {
  const Writable writable(*this);
  run(kind == Transaction::kChange ? "BEGIN IMMEDIATE" : "BEGIN");
  try {
    work();
    if (client_has_gone()) throw PassingFailure("interrupted");
    run("COMMIT");
  } catch (...) {
    rights_ = Rights::kEngine;
    sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

std::int64_t Store::change(std::string_view sql, Rights rights) {
  Query query = prepare(sql, rights);
  if (query.columns() != 0) throw Failure("RETURNING is not supported");
  const bool temporary = rights == Rights::kDropTemporary;
  transact(temporary ? Transaction::kTemporary : Transaction::kChange, [&] { query.run(); });
  return sqlite3_changes64(database_);
}

void Store::fail() const {
  const std::string message = std::string(sqlite3_errmsg(database_)).substr(0, kErrorLimit);
  switch (sqlite3_errcode(database_) & 0xFF) {
    case SQLITE_INTERRUPT:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
    case SQLITE_READONLY:
      throw PassingFailure(message);
    default:
      throw Failure(message);
  }
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
  return static_cast<Store*>(store)->client_has_gone() ? 1 : 0;
}

int Store::on_busy(void* store, int earlier_calls) {
  if (earlier_calls * kBusyWaitMs >= kBusyTimeoutMs) return 0;
  ClientWatch* client = static_cast<Store*>(store)->client_;
  if (client != nullptr) return client->gone_within(kBusyWaitMs) ? 0 : 1;
  return sqlite3_sleep(kBusyWaitMs) > 0 ? 1 : 0;
}

}  // namespace kova::sample
