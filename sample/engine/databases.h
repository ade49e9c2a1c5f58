// The folder of databases.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "engine/client_watch.h"
#include "engine/collections.h"
#include "engine/indexer.h"
#include "engine/store.h"

namespace kova::sample {

/// DIR/NAME.db is the database NAME, for names of 1 to 63 letters, digits and "_". Upper and lower
/// case are the same unless two files differ in nothing else. Any thread.
class Databases {
 public:
  explicit Databases(std::string folder);

  /// Whether the folder can be read.
  [[nodiscard]] bool readable() const;
  /// The names, sorted.
  [[nodiscard]] std::vector<std::string> names() const;
  /// The name as the folder spells it; false when there is no such database.
  [[nodiscard]] bool find(std::string_view name, std::string& spelled) const;
  [[nodiscard]] std::string path_of(const std::string& spelled) const;
  /// Opens a database that `find` has found. Null leaves the words in `error`.
  [[nodiscard]] std::shared_ptr<Store> open(const std::string& spelled, ClientWatch& watch,
                                            std::string& error);
  /// The collections of a database that was opened.
  [[nodiscard]] std::shared_ptr<Collections> collections(const std::string& spelled);
  /// To be called when jobs may be queued.
  void run_jobs() { indexer_.wake(); }

 private:
  struct Held {
    std::shared_ptr<Store> store;
    std::shared_ptr<Collections> collections;
  };

  void hold(const std::string& spelled);

  std::string folder_;
  const std::atomic<bool> never_ = false;
  ClientWatch nobody_{-1, never_};
  std::mutex mutex_;
  std::map<std::string, Held> held_;
  Indexer indexer_;
};

}  // namespace kova::sample
