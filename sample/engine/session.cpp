#include "engine/session.h"

namespace kova::sample {

Outcome Session::use(std::string_view database) {
  std::string spelled;
  if (!databases_.find(database, spelled)) {
    return failed("no such database: " + std::string(database));
  }
  database_ = std::move(spelled);
  store_.reset();
  return succeeded("OK");
}

Outcome Session::login(std::string_view user, std::string_view password) {
  logged_in_ = users_.admits(user, password);
  return logged_in_ ? succeeded("OK") : failed("wrong user or password");
}

Store* Session::store(std::string& error) {
  if (store_ != nullptr) return store_.get();
  store_ = database_.empty() ? Store::open("", watch_, error)
                             : databases_.open(database_, watch_, error);
  return store_.get();
}

}  // namespace kova::sample
