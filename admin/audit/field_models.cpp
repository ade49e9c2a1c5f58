#include "admin/audit/field_models.h"

#include <cstdint>
#include <string_view>

namespace kova::admin {

namespace {

// The model counts nanoseconds.
std::uint64_t nanoseconds(std::uint64_t milliseconds) {
  constexpr std::uint64_t kFactor = 1000000;
  return milliseconds > UINT64_MAX / kFactor ? UINT64_MAX : milliseconds * kFactor;
}

const char* ecs_type(const AuditRecord& record) {
  if (record.decision == "deny" || record.decision == "kill_switch" ||
      record.decision == "approval_required") {
    return "denied";
  }
  return record.is_write() ? "change" : "access";
}

int ocsf_activity(const AuditRecord& record) {
  constexpr int kRead = 1;
  constexpr int kQuery = 4;
  constexpr int kWrite = 5;
  if (record.is_write()) return kWrite;
  return record.tool == "kova_query" || record.tool.ends_with("_search") ? kQuery : kRead;
}

}  // namespace

Json ecs_event(const AuditRecord& record) {
  Json event = {{"@timestamp", record.timestamp},
                {"ecs", {{"version", "9.3.0"}}},
                {"event",
                 {{"kind", "event"},
                  {"category", Json::array({"database"})},
                  {"type", Json::array({ecs_type(record)})},
                  {"action", record.tool},
                  {"outcome", record.ok() ? "success" : "failure"},
                  {"duration", nanoseconds(record.duration_ms)},
                  {"dataset", "kova_mcp.audit"},
                  {"reason", record.decision}}},
                {"labels", {{"request_id", record.correlation_id}}},
                {"user", {{"name", record.client}}},
                {"rule", {{"name", record.policy}}}};
  if (!record.ok()) event["error"] = {{"type", record.error_class}};
  event["kova"] = {{"database", record.database},
                   {"objects", record.objects},
                   {"rows", record.rows},
                   {"bytes", record.bytes}};
  return event;
}

Json ocsf_event(const AuditRecord& record) {
  constexpr int kClass = 6005;
  const int activity = ocsf_activity(record);
  return {
      {"class_uid", kClass},
      {"category_uid", 6},
      {"activity_id", activity},
      {"type_uid", kClass * 100 + activity},
      {"severity_id", record.decision == "deny" ? 3 : 1},
      {"time", record.time},
      {"metadata",
       {{"version", "1.6.0"},
        {"product", {{"name", "kova-mcp"}}},
        {"correlation_uid", record.correlation_id},
        {"original_time", record.timestamp},
        {"event_code", record.tool}}},
      {"actor", {{"app_name", record.client}}},
      {"database", {{"name", record.database}, {"type_id", 1}}},
      {"type_id", 1},
      {"status_id", record.ok() ? 1 : 2},
      {"status_code", record.error_class},
      {"status_detail", record.decision},
      {"duration", record.duration_ms},
      {"count", 1},
      {"policy", {{"name", record.policy}}},
      {"unmapped", {{"objects", record.objects}, {"rows", record.rows}, {"bytes", record.bytes}}}};
}

}  // namespace kova::admin
