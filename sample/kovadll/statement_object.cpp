#include "kovadll/statement_object.h"

#include <utility>

namespace kova::sample {

namespace {

constexpr std::string_view kMalformed = "the engine's reply is malformed";

const char* at(const std::vector<const char*>& texts, int column) {
  if (column < 1 || static_cast<std::size_t>(column) > texts.size()) return nullptr;
  return texts[static_cast<std::size_t>(column) - 1];
}

}  // namespace

StatementObject::StatementObject(std::shared_ptr<Connection> connection)
    : connection_(std::move(connection)), number_(connection_->new_object_number()) {}

StatementObject::~StatementObject() {
  if (known_to_engine_) connection_->release(number_);
}

void StatementObject::forget_result() {
  rows_left_ = 0;
  more_ = false;
  names_.clear();
  cells_.clear();
}

bool StatementObject::lose(std::string_view words) {
  forget_result();
  connection_->close();
  status_ = words;
  return false;
}

bool StatementObject::exec(std::string_view statement) {
  forget_result();
  if (statement.size() > wire::kStatementLimit) {
    status_ = "the statement is too long";
    return false;
  }
  wire::FrameWriter request(wire::Type::kExec);
  request.u32(number_);
  request.text(statement);
  const bool exchanged = connection_->exchange(request, wire::Type::kOutcome, outcome_, status_);
  // It may have been a login.
  request.wipe();
  if (!exchanged) return false;
  known_to_engine_ = true;
  bool success = false;
  if (!read_outcome(success)) return lose(kMalformed);
  return success;
}

bool StatementObject::read_outcome(bool& success) {
  wire::PayloadReader reader({outcome_.data(), outcome_.size()});
  std::uint8_t flag = 0;
  std::string_view status;
  if (!reader.u8(flag) || flag > 1 || !reader.text(status) || !read_names(reader)) return false;
  status_ = status;
  success = flag == 1;
  if (!reader.u16(rows_left_) || (rows_left_ > 0 && names_.empty())) return false;
  rows_ = reader;
  return rows_left_ > 0 || read_end();
}

bool StatementObject::read_names(wire::PayloadReader& reader) {
  std::uint16_t columns = 0;
  if (!reader.u16(columns)) return false;
  for (; columns > 0; --columns) {
    std::string_view name;
    if (!reader.text(name)) return false;
    names_.push_back(name.data());
  }
  return true;
}

const char* StatementObject::field_name(int column) const {
  return at(names_, column);
}

const char* StatementObject::cell(int column) const {
  return at(cells_, column);
}

bool StatementObject::next() {
  cells_.clear();
  if (rows_left_ == 0 && !(more_ && fetch())) return false;
  if (rows_left_ == 0) return false;
  --rows_left_;
  if (!read_row() || (rows_left_ == 0 && !read_end())) return lose(kMalformed);
  return true;
}

bool StatementObject::read_row() {
  for (std::size_t i = 0; i < names_.size(); ++i) {
    std::string_view cell;
    if (!rows_.nullable_text(cell)) return false;
    cells_.push_back(cell.data());
  }
  return true;
}

// What stands behind a block's last row: whether there is more, or the words of the failure that
// ended it.
bool StatementObject::read_end() {
  std::uint8_t end = 0;
  std::string_view words;
  if (!rows_.u8(end) || end > 2 || !rows_.text(words) || !rows_.at_end()) return false;
  const auto kind = static_cast<wire::RowsEnd>(end);
  more_ = kind == wire::RowsEnd::kMore;
  if (kind == wire::RowsEnd::kFailed) status_ = words;
  return true;
}

bool StatementObject::fetch() {
  more_ = false;
  wire::FrameWriter request(wire::Type::kFetch);
  request.u32(number_);
  if (!connection_->exchange(request, wire::Type::kRows, block_, status_)) return false;
  rows_ = wire::PayloadReader({block_.data(), block_.size()});
  if (!rows_.u16(rows_left_) || names_.empty()) return lose(kMalformed);
  if (rows_left_ == 0 && !read_end()) return lose(kMalformed);
  return true;
}

}  // namespace kova::sample
