// What a client has got so far: its user, its database.
#pragma once

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

  [[nodiscard]] const Databases& databases() const { return databases_; }
  /// The connection to the chosen database, opened at the first call; while none is chosen, to an
  /// empty one. Null leaves the words in `error`.
  [[nodiscard]] Store* store(std::string& error);

 private:
  const Users& users_;
  Databases& databases_;
  ClientWatch& watch_;
  bool logged_in_ = false;
  std::string database_;
  std::shared_ptr<Store> store_;
};

}  // namespace kova::sample
