// What a new deployment is to be.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/common/secret_text.h"

namespace kova::admin {

using Names = std::vector<std::string>;

struct Setup {
  std::string folder;  ///< absolute and canonical
  std::string server;  ///< the engine's host
  std::string port;    ///< the engine's: a number or a service's name
  std::string database;
  std::string user;
  SecretText password;
  std::string client_id;
  std::string name;
  Names tables;
  Names denied_columns;
  Names collections;
  Names write_tables;
  bool writes = false;  ///< with approval
  bool http = false;
  std::string http_port;  ///< of the listener, when `http`
};

/// The parts of a list that is separated by commas, without blanks around them; empty parts are
/// left out.
[[nodiscard]] Names split_names(std::string_view text);

}  // namespace kova::admin
