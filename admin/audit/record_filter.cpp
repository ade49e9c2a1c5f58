#include "admin/audit/record_filter.h"

#include <fmt/format.h>

#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

std::optional<UnixMs> time_of(const char* option, const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  const std::optional<UnixMs> time = parse_time(*text);
  if (!time) {
    throw Refusal(
        fmt::format("{} {}: the time is not of the form 2026-11-21T11:45:51.158Z", option, *text));
  }
  return time;
}

}  // namespace

RecordFilter FilterOptions::filter() const {
  return {.since = time_of("--since", since),
          .until = time_of("--until", until),
          .client = client,
          .tool = tool};
}

void add_filter_options(CommandParser& parser, FilterOptions& options) {
  parser.add_option("--since", options.since, "Records from this time on, as in the file")
      .type_name("TIME");
  parser.add_option("--until", options.until, "Records before this time").type_name("TIME");
  parser.add_option("--client", options.client, "Records of this client_identity")
      .type_name("NAME");
  parser.add_option("--tool", options.tool, "Records of this tool").type_name("NAME");
}

}  // namespace kova::admin
