// What a client has got so far: its user, its database.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "engine/client_watch.h"
#include "engine/databases.h"
#include "engine/store.h"
#include "engine/users.h"

namespace kova::sample {

/// How a statement ended. An open query has rows to give.
struct Outcome {
  bool success = false;
  std::string status;
  Query query;
};

[[nodiscard]] inline Outcome succeeded(std::string status) {
  return {.success = true, .status = std::move(status), .query = {}};
}

[[nodiscard]] inline Outcome failed(std::string status) {
  return {.success = false, .status = std::move(status), .query = {}};
}

/// One client's session. Used by the thread that serves it.
class Session {
 public:
  Session(const Users& users, Databases& databases, ClientWatch& watch)
      : users_(users), databases_(databases), watch_(watch) {}

  [[nodiscard]] Outcome use(std::string_view database);
  [[nodiscard]] Outcome login(std::string_view user, std::string_view password);
  [[nodiscard]] bool logged_in() const { return logged_in_; }

  [[nodiscard]] Databases& databases() const { return databases_; }
  /// The connection to the chosen database, opened at the first call; while none is chosen, to an
  /// empty one. Null leaves the words in `error`.
  [[nodiscard]] Store* store(std::string& error);
  /// The collections of the database that `store` has answered.
  [[nodiscard]] Collections& collections() { return *collections_; }
  /// To be called when the connection's temporary tables may be others than before.
  void count_temporary_tables();
  /// Leaves the database, and with it the temporary tables; answers how many they were. Queries of
  /// the session are closed before.
  std::int64_t end();

 private:
  const Users& users_;
  Databases& databases_;
  ClientWatch& watch_;
  bool logged_in_ = false;
  std::string database_;
  std::shared_ptr<Store> store_;
  std::shared_ptr<Collections> collections_;
};

}  // namespace kova::sample
