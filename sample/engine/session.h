// What a client has reached so far: its user and its database.
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

/// What a statement that succeeded returns. An open query has rows to give.
struct Outcome {
  std::string status = "OK";
  Query query;
};

/// One client's session. Used by the thread that serves it.
class Session {
 public:
  Session(const Users& users, Databases& databases, ClientWatch& client)
      : users_(users), databases_(databases), client_(client) {}
  ~Session() { end(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void use(std::string_view name);
  void login(std::string_view user, std::string_view password);
  [[nodiscard]] bool logged_in() const { return logged_in_; }

  [[nodiscard]] Databases& databases() const { return databases_; }
  /// The connection to the chosen database, taken at the first call; while none is chosen, one to
  /// an empty database.
  [[nodiscard]] Store& store();
  /// Counts temporary tables that the session has made, or with -1 dropped.
  void count_temporary_tables(std::int64_t change);
  /// Temporary tables that all sessions on the database have.
  [[nodiscard]] std::int64_t all_temporary_tables() const { return database_->temporary_tables; }
  /// Leaves the database and with it the temporary tables; returns how many there were. The
  /// session's queries are closed before.
  std::int64_t end();

 private:
  const Users& users_;
  Databases& databases_;
  ClientWatch& client_;
  bool logged_in_ = false;
  Database none_{":memory:"};
  Database* database_ = &none_;
  std::shared_ptr<Store> store_;
  std::int64_t temporary_tables_ = 0;
};

}  // namespace kova::sample
