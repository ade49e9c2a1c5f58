#include "engine/session.h"

namespace kova::sample {

Outcome Session::use(std::string_view database) {
  std::string spelled;
  if (!databases_.find(database, spelled)) {
    return failed("no such database: " + std::string(database));
  }
  database_ = std::move(spelled);
  end();
  return succeeded("OK");
}

Outcome Session::login(std::string_view user, std::string_view password) {
  logged_in_ = users_.admits(user, password);
  return logged_in_ ? succeeded("OK") : failed("wrong user or password");
}

Store* Session::store(std::string& error) {
  if (store_ != nullptr) return store_.get();
  if (database_.empty()) {
    store_ = Store::open("", watch_, error);
    collections_ = std::make_shared<Collections>();
  } else {
    store_ = databases_.open(database_, watch_, error);
    collections_ = databases_.collections(database_);
  }
  return store_.get();
}

void Session::count_temporary_tables() {
  store_->count_temporary_tables({collections_, &collections_->temporary_tables});
}

std::int64_t Session::end() {
  const std::int64_t ended = store_ != nullptr ? store_->temporary_tables() : 0;
  store_.reset();
  collections_.reset();
  return ended;
}

}  // namespace kova::sample
