#include "db/result_json.h"

namespace kova {

namespace {

constexpr char kByteLimit[] = "database result byte limit exceeded";
constexpr char kCellLimitMessage[] = "database cell limit exceeded";
constexpr char kColumnLimitMessage[] = "database result column limit exceeded";

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

  /// Answers null, or the words of the failure.
  [[nodiscard]] const char* rows(std::uint32_t max_rows, std::uint32_t& count) {
    for (count = 0; count < max_rows && library_.next(object_) != 0; ++count) {
      if (!out_.append(count == 0 ? "[" : ",[")) return kByteLimit;
      if (const char* const failure = cells()) return failure;
      if (!out_.append("]")) return kByteLimit;
    }
    return nullptr;
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

  [[nodiscard]] const char* cells() {
    for (int column = 1; column <= columns_; ++column) {
      const std::string_view cell = or_empty(library_.data_by_fno(object_, column));
      if (!separate(column)) return kByteLimit;
      if (cell.size() > kCellLimit) return kCellLimitMessage;
      if (!out_.append_escaped(cell)) return kByteLimit;
    }
    return nullptr;
  }

  const ClientLibrary& library_;
  void* object_;
  int columns_;
  OutBuf& out_;
};

}  // namespace

const char* compose_result_json(const ClientLibrary& library, void* object, std::uint32_t max_rows,
                                OutBuf& out, std::uint32_t& row_count) {
  const int columns = library.field_count(object);
  // Compared unsigned, so that a negative count is over the limit.
  if (static_cast<unsigned>(columns) > kColumnLimit) return kColumnLimitMessage;
  ResultWriter writer(library, object, columns, out);
  if (!writer.head()) return kByteLimit;
  if (const char* const failure = writer.rows(max_rows, row_count)) return failure;
  return writer.tail(row_count, row_count == max_rows) ? nullptr : kByteLimit;
}

}  // namespace kova
