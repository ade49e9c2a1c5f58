#include "app/modes.h"

#include <string_view>

#include "app/stdio_server.h"
#include "app/trace.h"
#include "approval/token.h"
#include "audit/audit.h"
#include "base/exit_code.h"
#include "base/secret.h"
#include "base/text.h"
#include "db/session.h"
#include "http/listener.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "policy/policy.h"
#include "policy/predicates.h"

namespace kova {

namespace {

constexpr std::size_t kResultLineCapacity = 512;
/// The bytes of the first line that are read as a digest.
constexpr std::size_t kDigestLineLimit = 127;

const char* yes_no(bool value) {
  return value ? "yes" : "no";
}

/// Writes one line to standard error and returns the exit code of a failure.
int diagnose(std::string_view prefix, std::string_view reason) {
  char text[kResultLineCapacity];
  TextOut line(text);
  if (line.append(prefix) && line.append(reason) && line.append('\n')) write_stderr(line.view());
  return kExitFailure;
}

int config_invalid(std::string_view reason) {
  return diagnose("MCP_CONFIG_INVALID: ", reason);
}

int policy_invalid(const McpPolicy& policy) {
  return config_invalid(or_else(policy.error, "policy validation failed"));
}

int config_ok(const McpPolicy& policy, const char* database_profile) {
  char text[kResultLineCapacity];
  TextOut line(text);
  if (line.format("MCP_CONFIG_OK policy=%s configured=%s reads=%s provider_reads=%s writes=%s "
                  "approval_required=%s tables=%u collections=%u write_tables=%u "
                  "database_profile=%s\n",
                  policy.name[0] != '\0' ? policy.name : "default", yes_no(policy.configured),
                  yes_no(policy.reads_enabled), yes_no(policy_provider_reads_allowed(policy)),
                  yes_no(policy_writes_allowed(policy)), yes_no(policy.approval_required),
                  policy.allowed_tables.count, policy.allowed_collections.count,
                  policy.write_tables.count, database_profile)) {
    write_stdout(line.view());
  }
  return kExitOk;
}

}  // namespace

int stdio_mode(const Startup& startup) {
  refuse_audit_into_output();
  LineReader lines(startup.line_buffer.data(), read_stdin);
  run_stdio_server(lines, startup.protocol, startup.tools);
  disconnect(startup.tools.session);
  return kExitOk;
}

int check_policy_mode(const Startup& startup) {
  const McpPolicy& policy = startup.tools.policy;
  return policy.valid ? config_ok(policy, "not-tested") : policy_invalid(policy);
}

int check_config_mode(const Startup& startup) {
  const McpPolicy& policy = startup.tools.policy;
  if (!policy.valid) return policy_invalid(policy);
  const bool authenticated = ensure_session(startup.tools.session);
  const int exit_code = authenticated
                            ? config_ok(policy, "authenticated")
                            : config_invalid("authenticated database profile unavailable");
  disconnect(startup.tools.session);
  return exit_code;
}

int tool_worker_mode(const Startup& startup) {
  LineReader lines(startup.line_buffer, read_stdin);
  Line line;
  if (lines.next(line)) {
    startup.protocol.Initialized = true;
    dispatch(strip_line_end(cut_at_nul(line.text)), startup.protocol, startup.tools);
  }
  disconnect(startup.tools.session);
  return kExitOk;
}

int issue_approval_mode(const Startup& startup) {
  LineReader lines(startup.line_buffer.data(), read_stdin, kDigestLineLimit);
  Line line;
  if (!lines.next(line)) {
    write_stderr("approval digest is required on standard input\n");
    return kExitFailure;
  }
  const std::string_view digest = strip_line_end(cut_at_nul(line.text));
  char token[kTokenCapacity];
  const WipeGuard guard(token);
  char error[kApprovalMessageCapacity] = {};
  if (!approval_issue(startup.tools.policy, digest, unix_seconds(), token, error)) {
    return diagnose("approval issuance failed: ", error);
  }
  write_stdout(token);
  write_stdout("\n");
  return kExitOk;
}

int http_mode(const Startup& startup) {
  // The listener reads no lines itself: each session is a process with its own buffer.
  startup.line_buffer.reset();
  return run_http_listener(startup.operand, [] { trace("MCP_TRACE event=session_job_refused\n"); });
}

}  // namespace kova
