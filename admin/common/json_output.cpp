#include "admin/common/json_output.h"

#include "admin/common/output.h"

namespace kova::admin {

std::string json_line(const Json& value) {
  return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

void print_json(const Json& value) {
  print(json_line(value) + '\n');
}

}  // namespace kova::admin
