// Start-up, the same for every mode, and the table of modes.
#include <cstdlib>
#include <string_view>

#include "app/modes.h"
#include "http/listener.h"
#include "platform/console.h"
#include "platform/process.h"

namespace {

struct Mode {
  std::string_view argument;
  int (*run)(const kova::Startup& startup);
};

/// The modes of one argument. Everything else, unknown arguments included, is the stdio server.
constexpr Mode kModes[] = {
    {.argument = "--check-policy", .run = kova::check_policy_mode},
    {.argument = "--check-config", .run = kova::check_config_mode},
    {.argument = "--issue-approval", .run = kova::issue_approval_mode},
    {.argument = "--tool-worker", .run = kova::tool_worker_mode},
};

constinit kova::McpPolicy policy{};
constinit kova::AuditContext audit{};
constinit kova::DbSession session{};
constinit kova::ProtocolState protocol{};

auto mode_of(int count, char** arguments) {
  for (const Mode& mode : kModes) {
    if (count == 2 && mode.argument == arguments[1]) return mode.run;
  }
  return kova::stdio_mode;
}

}  // namespace

int main(int count, char** arguments) {
  kova::prepare_process();
  char* const line_buffer = static_cast<char*>(std::malloc(kova::kLineBufferCapacity));
  if (line_buffer == nullptr) return kova::kExitFailure;
  kova::prepare_standard_streams();
  // The outcome is in the record; each mode looks at it when it needs to.
  static_cast<void>(kova::policy_load(policy));
  if (count == 3 && std::string_view(arguments[1]) == "--http") {
    std::free(line_buffer);
    return kova::run_http_listener(arguments[2]);
  }
  kova::ToolContext tools{.policy = policy, .audit = audit, .session = session};
  const int exit_code =
      mode_of(count, arguments)({.line_buffer = line_buffer, .protocol = protocol, .tools = tools});
  std::free(line_buffer);
  return exit_code;
}
