#include "audit/audit.h"

#include "platform/environment.h"
#include "platform/record_file.h"

namespace kova {

namespace {

constexpr std::size_t kIdentityTextCapacity = 128;
constexpr std::size_t kNameTextCapacity = 96;
constexpr std::size_t kLongTextCapacity = 160;
constexpr std::size_t kDecisionTextCapacity = 48;

constexpr const char* kPathVariable = "KOVA_MCP_AUDIT";
constexpr std::string_view kPolicyOfNoFile = "m8-read-only";

template <std::size_t kCapacity>
struct CleanText {
  explicit CleanText(std::string_view source) { clean_audit_text(source, text); }
  char text[kCapacity];
};

std::string_view or_default(const EnvironmentValue& value, std::string_view fallback) {
  return value.view().empty() ? fallback : value.view();
}

}  // namespace

void clean_audit_text(std::string_view source, TextOut out) {
  char* const text = out.data();
  const std::size_t limit = out.capacity() - 2;
  std::size_t length = 0;
  for (const char byte : source) {
    if (length >= limit) break;
    if (byte == '"' || byte == '\\') text[length++] = '\\';
    text[length++] = byte >= 0x20 && byte <= 0x7E ? byte : '_';
  }
  text[length] = '\0';
}

bool format_audit_record(const AuditContext& context, const AuditIdentity& identity,
                         AuditOutcome outcome, const UtcTime& now, std::uint64_t now_ms,
                         TextOut out) {
  const std::string_view decision = context.policy_decision;
  const std::string_view implied = outcome.success ? "allow" : "deny";
  const CleanText<kIdentityTextCapacity> correlation_id(context.correlation_id);
  const CleanText<kIdentityTextCapacity> client(identity.client);
  const CleanText<kNameTextCapacity> database(identity.database);
  const CleanText<kLongTextCapacity> tool(context.tool);
  const CleanText<kNameTextCapacity> policy(identity.policy);
  const CleanText<kDecisionTextCapacity> policy_decision(decision.empty() ? implied : decision);
  const CleanText<kLongTextCapacity> objects(context.objects);
  return out.format(
      "{\"timestamp\":\"%04u-%02u-%02uT%02u:%02u:%02u.%03uZ\",\"correlation_id\":\"%s\","
      "\"client_identity\":\"%s\",\"database_identity\":\"%s\",\"tool\":\"%s\",\"policy\":\"%s\","
      "\"policy_decision\":\"%s\",\"objects\":\"%s\",\"duration_ms\":%llu,\"rows\":%u,"
      "\"bytes\":%u,\"status\":\"%s\",\"error_class\":\"%s\"}\r\n",
      now.year, now.month, now.day, now.hour, now.minute, now.second, now.millisecond,
      correlation_id.text, client.text, database.text, tool.text, policy.text, policy_decision.text,
      objects.text, static_cast<unsigned long long>(now_ms - context.started_ms), outcome.rows,
      outcome.bytes, outcome.success ? "ok" : "error", outcome.success ? "none" : "tool_error");
}

void write_audit_record(const AuditContext& context, const McpPolicy& policy,
                        AuditOutcome outcome) {
  const EnvironmentValue path(kPathVariable);
  const EnvironmentValue client("KOVA_MCP_CLIENT_ID");
  const EnvironmentValue database("KOVA_MCP_DATABASE");
  if (path.view().empty() || path.view().size() >= kPathCapacity) return;
  const AuditIdentity identity{
      .client = or_default(client, "unconfigured"),
      .database = or_default(database, "default"),
      .policy = policy.configured ? std::string_view(policy.name) : kPolicyOfNoFile};
  char record[kAuditRecordCapacity];
  if (format_audit_record(context, identity, outcome, utc_now(), tick_ms(), record)) {
    append_record(path.c_str(), record);
  }
}

void refuse_audit_into_output() {
  const EnvironmentValue path(kPathVariable);
  if (is_standard_output(path.c_str())) unset_environment(kPathVariable);
}

}  // namespace kova
