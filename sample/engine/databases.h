// The folder of databases, and the SQLite connections to each.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "engine/client_watch.h"
#include "engine/store.h"

namespace kova::sample {

/// One database, with the connections that no session uses at the moment: opening one costs more
/// than a small query. Any thread.
class Database {
 public:
  explicit Database(std::string path) : path_(std::move(path)) {}

  /// A connection for a session, opened when none is free. The first one of all brings the AI
  /// collections up to date.
  [[nodiscard]] std::shared_ptr<Store> take(ClientWatch& client);
  /// Takes a connection back from a session. One with temporary tables is closed, and the tables
  /// end with it; one that a query still uses is closed with the query.
  void give_back(std::shared_ptr<Store> store, std::int64_t temporary_tables_left);

  /// Temporary tables that the sessions have at the moment.
  std::atomic<std::int64_t> temporary_tables = 0;

 private:
  [[nodiscard]] std::shared_ptr<Store> take_free();
  void prepare(Store& store);

  std::string path_;
  std::mutex preparing_;
  bool prepared_ = false;
  std::mutex mutex_;
  std::vector<std::shared_ptr<Store>> free_;
};

/// DIR/NAME.db is the database NAME, for names of 1 to 63 letters, digits and "_". Upper and lower
/// case are the same unless two files differ in nothing else. Any thread.
class Databases {
 public:
  explicit Databases(std::string folder) : folder_(std::move(folder)) {}

  /// Whether the folder can be read.
  [[nodiscard]] bool readable() const;
  /// The names, sorted.
  [[nodiscard]] std::vector<std::string> names() const;
  /// The database, which lives as long as this; throws when there is none of the name.
  [[nodiscard]] Database& find(std::string_view name);
  [[nodiscard]] std::string path_of(const std::string& name) const;

 private:
  std::string folder_;
  std::mutex mutex_;
  std::map<std::string, Database> databases_;
};

}  // namespace kova::sample
