#include "engine/session.h"

#include <utility>

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
  Query count;
  if (!store_->prepare("SELECT COUNT(*) FROM sqlite_temp_schema WHERE type = 'table'",
                       Rights::kEngine, count) ||
      count.step() != Query::Step::kRow) {
    return;
  }
  collections_->temporary_tables += count.integer(0) - temporary_tables_;
  temporary_tables_ = count.integer(0);
}

std::int64_t Session::end() {
  store_.reset();
  const std::int64_t ended = std::exchange(temporary_tables_, 0);
  if (collections_ != nullptr) collections_->temporary_tables -= ended;
  collections_.reset();
  return ended;
}

}  // namespace kova::sample
