// One SQLite connection, with what a statement may do there. Failures are thrown with SQLite's
// message.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engine/client_watch.h"
#include "failure.h"

namespace kova::sample {

/// What a statement may do; SQLite's authorizer refuses the rest.
enum class Rights : std::uint8_t {
  kRead,           ///< a SELECT
  kChange,         ///< rows of ordinary tables
  kDropTemporary,  ///< the removal of a temporary table
  kEngine,         ///< the engine's own statements
};

enum class Transaction : std::uint8_t {
  kChange,     ///< waits until no other connection changes the database
  kTemporary,  ///< changes temporary tables only and waits for nobody
};

/// A failure that may not come again: an interruption, a busy database, no space, no right to
/// write the file.
class PassingFailure : public Failure {
 public:
  using Failure::Failure;
};

class Store;

/// A prepared statement and its position in the result.
class Query {
 public:
  Query() = default;
  ~Query() { close(); }
  Query(Query&& other) noexcept;
  Query& operator=(Query&& other) noexcept;
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  /// Makes the next row current; false at the end of the result.
  bool step();
  /// Computes the first row now, for the first `step`.
  void step_ahead();
  /// Runs a statement without rows, and makes it ready to run again.
  void run();
  /// Makes it ready to run again; what is bound stays.
  void rewind() { sqlite3_reset(statement_); }
  void close();

  [[nodiscard]] bool is_open() const { return statement_ != nullptr; }
  [[nodiscard]] int columns() const { return sqlite3_column_count(statement_); }
  [[nodiscard]] std::string_view column_name(int column) const;
  /// The current row's cell as SQLite writes it as text; null data for a null.
  [[nodiscard]] std::string_view cell(int column) const;
  [[nodiscard]] std::int64_t integer(int column) const;
  [[nodiscard]] std::string_view blob(int column) const;

  Query& bind(int parameter, std::string_view text);
  Query& bind(int parameter, std::int64_t number);
  Query& bind_blob(int parameter, std::string_view bytes);
  /// Binds a cell of another query's current row, of whatever type.
  Query& bind_cell(int parameter, const Query& from, int column);

 private:
  friend class Store;

  [[nodiscard]] bool compute_row();
  Query& bound(int result);

  std::shared_ptr<Store> store_;
  sqlite3_stmt* statement_ = nullptr;
  Rights rights_ = Rights::kRead;
  std::optional<bool> ahead_;  ///< what the first step will return, once it is computed
};

/// A connection to one database file, read-only except during a change. Used by one thread at a
/// time.
class Store : public std::enable_shared_from_this<Store> {
 public:
  /// ":memory:" is an empty database in memory.
  [[nodiscard]] static std::shared_ptr<Store> open(const std::string& path);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Whatever runs from now on is interrupted soon after this client has gone. Null: no client.
  void watch(ClientWatch* client) { client_ = client; }
  /// Prepares exactly one statement.
  [[nodiscard]] Query prepare(std::string_view sql, Rights rights = Rights::kEngine);
  /// Runs a changing statement in a transaction of its own and returns the number of changed rows.
  std::int64_t change(std::string_view sql, Rights rights);
  /// Runs statements of the engine's own; they change something only within `transact`.
  void run(const char* sql);
  /// Runs work as one transaction, which is rolled back when the work throws or the client has
  /// gone. Queries that change something are finished or closed at its end.
  void transact(Transaction kind, const std::function<void()>& work);
  /// Whether there is a first row.
  [[nodiscard]] bool has_row(std::string_view sql);
  [[nodiscard]] bool has_table(std::string_view name);

 private:
  friend class Query;
  class Writable;

  Store() = default;

  void configure();
  [[nodiscard]] bool client_has_gone() { return client_ != nullptr && client_->gone(); }
  [[noreturn]] void fail() const;
  void set_query_only(bool on);

  static int authorize(void* store, int action, const char* first, const char* second,
                       const char* database, const char* trigger);
  static int on_progress(void* store);
  static int on_busy(void* store, int earlier_calls);

  ClientWatch* client_ = nullptr;
  sqlite3* database_ = nullptr;
  Rights rights_ = Rights::kEngine;
};

}  // namespace kova::sample
