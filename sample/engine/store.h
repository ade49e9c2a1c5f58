// One SQLite connection, with what a statement may do there.
#pragma once

#include <sqlite3.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "engine/client_watch.h"

namespace kova::sample {

/// What a statement may do; SQLite's authorizer refuses the rest.
enum class Rights : std::uint8_t {
  kRead,           ///< a SELECT
  kChange,         ///< rows of ordinary tables
  kDropTemporary,  ///< a temporary table's removal
  kEngine,         ///< the engine's own statements
};

enum class Transaction : std::uint8_t {
  kRead,       ///< sees one state of the database
  kChange,     ///< waits until no other connection changes the database
  kTemporary,  ///< changes temporary tables only, beside whatever others do
};

class Store;

/// A prepared statement and where its result stands.
class Query {
 public:
  enum class Step : std::uint8_t { kRow, kEnd, kFailed };

  Query() = default;
  ~Query() { close(); }
  Query(Query&& other) noexcept;
  Query& operator=(Query&& other) noexcept;
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  /// Makes the next row current. A failure's words are the store's `error()`.
  [[nodiscard]] Step step();
  [[nodiscard]] bool is_open() const { return statement_ != nullptr; }
  [[nodiscard]] int columns() const { return sqlite3_column_count(statement_); }
  [[nodiscard]] std::string_view column_name(int column) const;
  /// The current row's cell as SQLite writes it as text; null data for a null.
  [[nodiscard]] std::string_view cell(int column) const;
  [[nodiscard]] std::int64_t integer(int column) const;
  [[nodiscard]] std::string_view blob(int column) const;
  [[nodiscard]] const Store& store() const { return *store_; }
  [[nodiscard]] bool bind(int parameter, std::string_view text);
  [[nodiscard]] bool bind(int parameter, std::int64_t number);
  [[nodiscard]] bool bind_blob(int parameter, std::string_view bytes);
  /// Binds what another query's current row holds, of whatever type.
  [[nodiscard]] bool bind_cell(int parameter, const Query& from, int column);
  /// Makes it ready to run again; what is bound stays.
  void rewind();
  void close();

 private:
  friend class Store;

  std::shared_ptr<Store> store_;
  sqlite3_stmt* statement_ = nullptr;
  Rights rights_ = Rights::kRead;
};

/// A connection to one database file, read-only but for the moment of a change. Everything that
/// runs there ends soon after the watched client has gone. Used by one thread.
class Store : public std::enable_shared_from_this<Store> {
 public:
  /// Null leaves the words in `error`. An empty path is an empty database in memory.
  [[nodiscard]] static std::shared_ptr<Store> open(const std::string& path, ClientWatch& watch,
                                                   std::string& error);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Prepares exactly one statement.
  [[nodiscard]] bool prepare(std::string_view sql, Rights rights, Query& query);
  /// Runs a changing statement in a transaction of its own and answers the number of rows that it
  /// changed.
  [[nodiscard]] bool change(std::string_view sql, Rights rights, std::int64_t& rows);
  /// Runs statements of the engine's own, but no change outside of `transact`.
  [[nodiscard]] bool run(const char* sql);
  /// Runs work of the engine's own as one transaction: what it has changed is there as a whole when
  /// it answers true, else not at all. Queries that change are finished or closed at its end. Work
  /// within work is part of it.
  [[nodiscard]] bool transact(Transaction kind, const std::function<bool()>& work);
  /// Brings a total up to date with the connection's temporary tables, and takes them off it when
  /// the connection closes.
  void count_temporary_tables(const std::shared_ptr<std::atomic<std::int64_t>>& total);
  /// As counted last.
  [[nodiscard]] std::int64_t temporary_tables() const { return temporary_tables_; }
  /// Keeps words for `error()` and answers false.
  bool fail(std::string_view words);

  /// Whether the last failure would come again: not one of an interruption, of a busy database, or
  /// of missing space.
  [[nodiscard]] bool failure_lasts() const { return failure_ == SQLITE_ERROR; }
  /// The words of the last failure.
  [[nodiscard]] const std::string& error() const { return error_; }

 private:
  friend class Query;
  class Writable;

  explicit Store(ClientWatch& watch) : watch_(watch) {}

  [[nodiscard]] bool configure();
  [[nodiscard]] bool still_wanted();
  bool fail_with_database_words();
  void set_query_only(bool on);

  static int authorize(void* store, int action, const char* first, const char* second,
                       const char* database, const char* trigger);
  static int on_progress(void* store);
  static int on_busy(void* store, int earlier_calls);

  ClientWatch& watch_;
  sqlite3* database_ = nullptr;
  Rights rights_ = Rights::kEngine;
  std::int64_t temporary_tables_ = 0;
  std::shared_ptr<std::atomic<std::int64_t>> all_temporary_tables_;
  std::string error_;
  int failure_ = SQLITE_OK;
};

}  // namespace kova::sample
