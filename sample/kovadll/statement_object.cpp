#include "kovadll/statement_object.h"

#include <utility>

namespace kova::sample {

namespace {

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

template <typename Work>
bool StatementObject::attempt(const Work& work) {
  try {
    return work();
  } catch (const wire::Malformed&) {
    forget_result();
    connection_->close();
    status_ = "the engine's reply is malformed";
  } catch (const std::exception& failure) {
    more_ = false;
    status_ = failure.what();
  }
  return false;
}

bool StatementObject::exec(std::string_view statement) {
  forget_result();
  return attempt([&] { return run(statement); });
}

bool StatementObject::run(std::string_view statement) {
  if (statement.size() > wire::kStatementLimit) throw Failure("the statement is too long");
  wire::FrameWriter request(wire::Type::kExec);
  request.u32(number_);
  request.text(statement);
  outcome_ = connection_->exchange(request, wire::Type::kOutcome);
  known_to_engine_ = true;
  return read_outcome();
}

bool StatementObject::read_outcome() {
  rows_ = wire::PayloadReader({outcome_.data(), outcome_.size()});
  const std::uint8_t success = rows_.u8();
  if (success > 1) throw wire::Malformed();
  status_ = rows_.text();
  for (std::uint16_t columns = rows_.u16(); columns > 0; --columns) {
    names_.push_back(rows_.text().data());
  }
  rows_left_ = rows_.u16();
  if (rows_left_ > 0 && names_.empty()) throw wire::Malformed();
  if (rows_left_ == 0) read_end();
  return success == 1;
}

const char* StatementObject::field_name(int column) const {
  return at(names_, column);
}

const char* StatementObject::cell(int column) const {
  return at(cells_, column);
}

bool StatementObject::next() {
  cells_.clear();
  return attempt([&] { return read_row(); });
}

bool StatementObject::read_row() {
  if (rows_left_ == 0 && more_) fetch();
  if (rows_left_ == 0) return false;
  for (std::size_t i = 0; i < names_.size(); ++i) cells_.push_back(rows_.nullable_text().data());
  if (--rows_left_ == 0) read_end();
  return true;
}

// What stands after the last row of a block: whether there is more, or the message of the failure
// that ended the result.
void StatementObject::read_end() {
  const std::uint8_t end = rows_.u8();
  const std::string_view message = rows_.text();
  rows_.expect_end();
  if (end > static_cast<std::uint8_t>(wire::RowsEnd::kFailed)) throw wire::Malformed();
  const auto kind = static_cast<wire::RowsEnd>(end);
  more_ = kind == wire::RowsEnd::kMore;
  if (kind == wire::RowsEnd::kFailed) status_ = message;
}

void StatementObject::fetch() {
  wire::FrameWriter request(wire::Type::kFetch);
  request.u32(number_);
  block_ = connection_->exchange(request, wire::Type::kRows);
  rows_ = wire::PayloadReader({block_.data(), block_.size()});
  rows_left_ = rows_.u16();
  if (names_.empty()) throw wire::Malformed();
  if (rows_left_ == 0) read_end();
}

}  // namespace kova::sample
