#include "engine/session.h"

#include <utility>

namespace kova::sample {

void Session::use(std::string_view name) {
  Database& chosen = databases_.find(name);
  end();
  database_ = &chosen;
}

void Session::login(std::string_view user, std::string_view password) {
  logged_in_ = users_.admits(user, password);
  if (!logged_in_) throw Failure("wrong user or password");
}

Store& Session::store() {
  if (store_ == nullptr) store_ = database_->take(client_);
  return *store_;
}

void Session::count_temporary_tables(std::int64_t change) {
  temporary_tables_ += change;
  database_->temporary_tables += change;
}

std::int64_t Session::end() {
  const std::int64_t ended = std::exchange(temporary_tables_, 0);
  if (store_ != nullptr) database_->give_back(std::exchange(store_, nullptr), ended);
  return ended;
}

}  // namespace kova::sample
