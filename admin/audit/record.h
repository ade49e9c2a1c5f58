// One record of the audit file (docs/audit.md), read from its line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "admin/common/times.h"
#include "json/json.h"

namespace kova::admin {

/// Bytes of a line without its end; a longer one is not read.
inline constexpr std::size_t kAuditLineLimit = 65536;

/// The members of a record, their escapes decoded.
struct AuditRecord {
  UnixMs time;
  std::string_view timestamp;
  std::string_view correlation_id;
  std::string_view client;
  std::string_view database;
  std::string_view tool;
  std::string_view policy;
  std::string_view decision;
  std::string_view objects;
  std::uint64_t duration_ms;
  std::uint64_t rows;
  std::uint64_t bytes;
  std::string_view status;
  std::string_view error_class;

  [[nodiscard]] bool ok() const { return status == "ok"; }
  [[nodiscard]] bool is_write() const { return tool == "kova_execute"; }
};

/// Reads lines. A line in the server's own form is read in one pass without a token, and so is one
/// whose members have another order or blanks between them; every other one by the JSON document of
/// the core, which decides what is JSON.
class AuditRecordReader {
 public:
  AuditRecordReader();

  /// Reads a line without its LF. False when it is no JSON object (RFC 8259), when a member of the
  /// record is missing or of another type (a time that does not exist, a number that is no whole
  /// one of 64 bits without a sign), and when it is longer than the limit. Further members are
  /// ignored; of a member that is there twice the last one counts. The record's texts live until
  /// the next call or as long as the line, whichever is shorter.
  [[nodiscard]] bool read(std::string_view line, AuditRecord& record);

 private:
  [[nodiscard]] bool read_own_form(std::string_view line, AuditRecord& record);
  [[nodiscard]] bool read_flat_form(std::string_view line, AuditRecord& record);
  [[nodiscard]] bool read_document(std::string_view line, AuditRecord& record);
  [[nodiscard]] bool read_text(const JsonDoc& doc, int value, std::string_view& text);
  [[nodiscard]] bool read_time(std::string_view text, AuditRecord& record);

  std::vector<JsonToken> tokens_;
  /// Room for decoded text, which is never longer than its source.
  std::vector<char> decoded_;
  std::size_t decoded_size_ = 0;
  /// The day of the last timestamp, whose text most lines share.
  char day_text_[10] = {};
  UnixMs day_ = 0;
};

}  // namespace kova::admin
