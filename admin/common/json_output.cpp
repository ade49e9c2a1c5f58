#include "admin/common/json_output.h"

#include "admin/common/output.h"
#include "base/string_scan.h"

namespace kova::admin {

std::string json_line(const Json& value) {
  return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

void append_json_text(std::string& line, std::string_view text) {
  constexpr char kDelete = 0x7F;
  const char* const end = text.data() + text.size();
  if (find_run_end<NonAscii::kStops>(text.data(), end) != end || text.find(kDelete) != text.npos) {
    line += json_line(Json(text));
    return;
  }
  // Nothing is to be escaped, as in most texts.
  line += '"';
  line += text;
  line += '"';
}

Json text_or_null(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

void print_json(const Json& value) {
  print(json_line(value) + '\n');
}

}  // namespace kova::admin
