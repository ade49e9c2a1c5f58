// Which records a command looks at.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "admin/audit/record.h"
#include "admin/common/command_parser.h"

namespace kova::admin {

struct RecordFilter {
  std::optional<UnixMs> since;  ///< the first time
  std::optional<UnixMs> until;  ///< the first time after it
  std::optional<std::string> client;
  std::optional<std::string> tool;

  [[nodiscard]] bool accepts(const AuditRecord& record) const {
    return (!since || record.time >= *since) && (!until || record.time < *until) &&
           (!client || record.client == *client) && (!tool || record.tool == *tool);
  }
};

/// The options of a filter as they were typed.
struct FilterOptions {
  std::optional<std::string> since;
  std::optional<std::string> until;
  std::optional<std::string> client;
  std::optional<std::string> tool;

  /// Throws Refusal for a malformed time.
  [[nodiscard]] RecordFilter filter() const;
};

/// Adds `--since`, `--until`, `--client` and `--tool` to a command.
void add_filter_options(CommandParser& parser, FilterOptions& options);

}  // namespace kova::admin
