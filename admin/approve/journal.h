// The journal: one line of JSON for every decision of an operator.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/common/command_parser.h"

namespace kova::admin {

inline constexpr std::string_view kApproved = "approved";
inline constexpr std::string_view kDeclined = "declined";

/// One decision; times as in the audit log.
struct Decision {
  std::string timestamp;
  std::string decision;  ///< kApproved or kDeclined
  std::string person;    ///< the member `operator`
  std::string host;
  std::string reason;
  std::string policy;
  std::string client_id;
  std::string database;
  std::string type;
  std::string table;
  std::optional<std::string> statement;  ///< canonical; none where it may not be kept
  std::string digest;
  std::optional<std::string> nonce;       ///< none for a declined write
  std::optional<std::string> expires_at;  ///< the same
};

/// Adds `--journal FILE` to a command and returns where its value will stand.
[[nodiscard]] std::shared_ptr<std::string> add_journal_option(CommandParser& parser);

/// The journal's path: the option's value, else that of KOVA_ADMIN_JOURNAL. Throws Refusal when
/// both are empty.
[[nodiscard]] std::string journal_path(const std::string& option);

/// The line of a decision, with its LF; everything but printable ASCII is escaped.
[[nodiscard]] std::string journal_line(const Decision& decision);

/// Throws Refusal for a journal whose last line has no end: the next one would be joined to it, and
/// neither could be read.
void check_last_line(const std::string& path);

/// Appends a decision and stores it for good. Throws Refusal.
void append_decision(const std::string& path, const Decision& decision);

/// Reads one line without its end. Throws Refusal with the column, in bytes from 1, for a malformed
/// one.
[[nodiscard]] Decision parse_decision(std::string_view line);

/// Reads the lines of a journal. Throws Refusal with line and column for a malformed one.
[[nodiscard]] std::vector<Decision> parse_journal(std::string_view text);

/// The same for a file; none that does not exist yet is empty.
[[nodiscard]] std::vector<Decision> read_journal(const std::string& path);

}  // namespace kova::admin
