#include "mcp/tool_list.h"

#include <string_view>

#include "policy/predicates.h"
#include "tools/tool_table.h"

namespace kova {

namespace {

constexpr std::string_view kReadAnnotations =
    R"(,"annotations":{"readOnlyHint":true,"destructiveHint":false,"idempotentHint":true,)"
    R"("openWorldHint":false},"execution":{"taskSupport":"forbidden"}})";

constexpr std::string_view kWriteAnnotations =
    R"(,"annotations":{"readOnlyHint":false,"destructiveHint":true,"idempotentHint":false,)"
    R"("openWorldHint":false},"execution":{"taskSupport":"forbidden"}})";

void write_tool(ReplyLine& reply, const Tool& tool) {
  reply.raw(R"({"name":)")
      .string(tool.name)
      .raw(R"(,"description":)")
      .string(tool.description)
      .raw(R"(,"inputSchema":)")
      .raw(tool.input_schema)
      .raw(tool.access == ToolAccess::kWrite ? kWriteAnnotations : kReadAnnotations);
}

}  // namespace

bool is_listed(const Tool& tool, const McpPolicy& policy) {
  switch (tool.access) {
    case ToolAccess::kRead:
      return policy_reads_allowed(policy);
    case ToolAccess::kProviderRead:
      return policy_reads_allowed(policy) && policy_provider_reads_allowed(policy);
    case ToolAccess::kWrite:
      return policy_writes_allowed(policy);
  }
  return false;
}

void write_tool_list(RequestId id, const McpPolicy& policy) {
  ReplyLine reply(id);
  reply.raw(R"(,"result":{"tools":[)");
  std::string_view separator;
  for (const Tool& tool : tool_table()) {
    if (!is_listed(tool, policy)) continue;
    reply.raw(separator);
    write_tool(reply, tool);
    separator = ",";
  }
  reply.raw("]}}");
}

}  // namespace kova
