#include "db/result_json.h"

namespace kova {

namespace {

constexpr std::string_view kByteLimitMessage = "database result byte limit exceeded";

std::string_view or_empty(const char* text) {
  return text != nullptr ? text : "";
}

/// Reads one statement object's current result.
class ResultWriter {
 public:
  ResultWriter(const ClientLibrary& library, void* object, int columns, OutBuf& out)
      : library_(library), object_(object), columns_(columns), out_(out) {}

  [[nodiscard]] bool head() {
    return out_.append(R"({"status":)") &&
           out_.append_escaped(or_empty(library_.status(object_))) &&
           out_.append(R"(,"columns":[)") && names() && out_.append(R"(],"rows":[)");
  }

  [[nodiscard]] bool rows(std::uint32_t max_rows, std::uint32_t& count, TextOut message) {
    for (count = 0; count < max_rows && library_.next(object_) != 0; ++count) {
      if (!out_.append(count == 0 ? "[" : ",[")) return refuse(message, kByteLimitMessage);
      if (!cells(message)) return false;
      if (!out_.append("]")) return refuse(message, kByteLimitMessage);
    }
    return true;
  }

  [[nodiscard]] bool tail(std::uint32_t count, bool truncated) {
    return out_.append_formatted("],\"rowCount\":%u,\"truncated\":%s}", count,
                                 truncated ? "true" : "false");
  }

 private:
  [[nodiscard]] bool separate(int column) { return column == 1 || out_.append(","); }

  [[nodiscard]] bool names() {
    for (int column = 1; column <= columns_; ++column) {
      if (!separate(column) ||
          !out_.append_escaped(or_empty(library_.field_name(object_, column)))) {
        return false;
      }
    }
    return true;
  }

  [[nodiscard]] bool cells(TextOut message) {
    for (int column = 1; column <= columns_; ++column) {
      const std::string_view cell = or_empty(library_.data_by_fno(object_, column));
      if (!separate(column)) return refuse(message, kByteLimitMessage);
      if (cell.size() > kCellLimit) return refuse(message, "database cell limit exceeded");
      if (!out_.append_escaped(cell)) return refuse(message, kByteLimitMessage);
    }
    return true;
  }

  const ClientLibrary& library_;
  void* object_;
  int columns_;
  OutBuf& out_;
};

}  // namespace

bool compose_result_json(const ClientLibrary& library, void* object, std::uint32_t max_rows,
                         OutBuf& out, std::uint32_t& row_count, TextOut message) {
  const int columns = library.field_count(object);
  // Compared unsigned, so that a negative count is over the limit.
  if (static_cast<unsigned>(columns) > kColumnLimit) {
    return refuse(message, "database result column limit exceeded");
  }
  ResultWriter writer(library, object, columns, out);
  if (!writer.head()) return refuse(message, kByteLimitMessage);
  if (!writer.rows(max_rows, row_count, message)) return false;
  return writer.tail(row_count, row_count == max_rows) || refuse(message, kByteLimitMessage);
}

}  // namespace kova
