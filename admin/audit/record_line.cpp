#include "admin/audit/record_line.h"

#include <fmt/format.h>

#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "base/string_scan.h"

namespace kova::admin {

namespace {

constexpr std::size_t kUnreadableShown = 120;

}  // namespace

std::string record_line(const AuditRecord& record, bool colour) {
  const bool marked = colour && !record.ok();
  return fmt::format("{}  {}{:<5}  {:<17}{}  {:<19}  {}  {}  rows={} bytes={} ms={} id={}",
                     printable(record.timestamp), marked ? colour_code(Colour::kRed) : "",
                     printable(record.status), printable(record.decision),
                     marked ? colour_code(Colour::kNone) : "", printable(record.tool),
                     printable(record.client),
                     record.objects.empty() ? "-" : printable(record.objects), record.rows,
                     record.bytes, record.duration_ms, printable(record.correlation_id));
}

std::string unreadable_line(std::string_view line) {
  return fmt::format("not readable: {}{}", printable(cut_text(line, kUnreadableShown)),
                     line.size() > kUnreadableShown ? "..." : "");
}

}  // namespace kova::admin
