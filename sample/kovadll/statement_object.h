// A statement and its result on the client's side.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kovadll/connection.h"

namespace kova::sample {

/// Runs one statement at a time and holds the block of rows that is being read. Used by one thread
/// at a time. A failure ends here: the call returns false and `status` has the message.
class StatementObject {
 public:
  explicit StatementObject(std::shared_ptr<Connection> connection);
  ~StatementObject();
  StatementObject(const StatementObject&) = delete;
  StatementObject& operator=(const StatementObject&) = delete;

  /// Runs a statement and abandons the earlier result.
  [[nodiscard]] bool exec(std::string_view statement);
  [[nodiscard]] const char* status() const { return status_.c_str(); }
  [[nodiscard]] int field_count() const { return static_cast<int>(names_.size()); }
  /// Columns count from 1. Null for a column that is not there.
  [[nodiscard]] const char* field_name(int column) const;
  /// Makes the next row current; false at the end of the result, too.
  [[nodiscard]] bool next();
  /// Null also for a null cell, and while no row is current.
  [[nodiscard]] const char* cell(int column) const;

 private:
  template <typename Work>
  [[nodiscard]] bool attempt(const Work& work);
  [[nodiscard]] bool run(std::string_view statement);
  [[nodiscard]] bool read_outcome();
  [[nodiscard]] bool read_row();
  void read_end();
  void fetch();
  void forget_result();

  std::shared_ptr<Connection> connection_;
  std::uint32_t number_;
  bool known_to_engine_ = false;
  std::string status_;
  Connection::Payload outcome_;  ///< holds the column names
  Connection::Payload block_;
  wire::PayloadReader rows_{{}};
  std::uint16_t rows_left_ = 0;
  bool more_ = false;
  std::vector<const char*> names_;
  std::vector<const char*> cells_;
};

}  // namespace kova::sample
