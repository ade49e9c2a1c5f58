// Start-up, the same for every mode, and the table of modes.
#include <algorithm>
#include <iterator>
#include <string_view>

#include "app/modes.h"
#include "audit/audit.h"
#include "base/exit_code.h"
#include "db/session.h"
#include "mcp/dispatcher.h"
#include "platform/console.h"
#include "platform/large_block.h"
#include "platform/process.h"
#include "policy/policy.h"
#include "policy/policy_file.h"
#include "tools/tool.h"

namespace {

struct Mode {
  std::string_view argument;
  int operands;
  int (*run)(const kova::Startup& startup);
};

constexpr Mode kModes[] = {
    {.argument = "--check-policy", .operands = 0, .run = kova::check_policy_mode},
    {.argument = "--check-config", .operands = 0, .run = kova::check_config_mode},
    {.argument = "--issue-approval", .operands = 0, .run = kova::issue_approval_mode},
    {.argument = "--tool-worker", .operands = 0, .run = kova::tool_worker_mode},
    {.argument = "--http", .operands = 1, .run = kova::http_mode},
};

constinit kova::McpPolicy policy{};
constinit kova::AuditContext audit{};
constinit kova::DbSession db_session{};
constinit kova::ProtocolState protocol{};

/// Everything that is in no row, unknown arguments included, is the stdio server.
auto mode_of(int count, char** arguments) {
  const auto* const mode = std::ranges::find_if(kModes, [&](const Mode& row) {
    return count == row.operands + 2 && row.argument == arguments[1];
  });
  return mode != std::end(kModes) ? mode->run : kova::stdio_mode;
}

}  // namespace

int main(int count, char** arguments) {
  kova::prepare_process();
  kova::LargeBlock line_buffer(kova::kLineBufferCapacity);
  if (!line_buffer) return kova::kExitFailure;
  kova::prepare_standard_streams();
  // The outcome is in the record; each mode looks at it when it needs to.
  static_cast<void>(kova::policy_load(policy));
  kova::ToolContext tools{.policy = policy, .audit = audit, .session = db_session};
  return mode_of(count, arguments)({.line_buffer = line_buffer,
                                    .protocol = protocol,
                                    .tools = tools,
                                    .operand = count > 2 ? arguments[2] : nullptr});
}
