#include "admin/approvals/audit_uses.h"

#include <filesystem>
#include <fstream>
#include <optional>

#include "admin/common/json_output.h"
#include "admin/common/paths.h"
#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

/// Lines without it are not parsed: nearly all of a long log.
constexpr std::string_view kAccepted = R"("policy_decision":"approval_accepted")";

std::string text_member(const Json& record, const char* name) {
  const auto found = record.find(name);
  return found != record.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

void add_audit_use(std::string_view line, std::vector<AuditUse>& uses) {
  if (line.find(kAccepted) == line.npos) return;
  const Json record = Json::parse(line, nullptr, false);
  if (!record.is_object()) return;
  const std::optional<UnixMs> end = parse_time(text_member(record, "timestamp"));
  const auto duration = record.find("duration_ms");
  if (!end || duration == record.end() || !duration->is_number_unsigned()) return;
  uses.push_back({.begin = *end - duration->get<UnixMs>(),
                  .end = *end,
                  .policy = text_member(record, "policy"),
                  .table = text_member(record, "objects")});
}

std::vector<AuditUse> read_audit_uses(const std::string& path) {
  std::vector<AuditUse> uses;
  std::error_code error;
  if (path.empty() || (!std::filesystem::exists(path_of(path), error) && !error)) return uses;
  // A pipe or a device gives no records back, or waits for them.
  if (!std::filesystem::is_regular_file(path_of(path), error)) {
    throw Refusal(path + ": the audit file is no regular file");
  }
  std::ifstream file(path_of(path), std::ios::binary);
  for (std::string line; std::getline(file, line);) add_audit_use(line, uses);
  if (!file.eof()) throw Refusal(path + ": the audit file cannot be read");
  return uses;
}

}  // namespace kova::admin
