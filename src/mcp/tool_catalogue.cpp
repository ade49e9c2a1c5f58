#include "mcp/tool_catalogue.h"

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

/// The gates that a tool may ask for and still be listed.
std::uint32_t open_gates(const McpPolicy& policy) {
  const bool reads = policy.valid && (!policy.configured || policy.reads_enabled);
  std::uint32_t gates = 0;
  if (reads) gates |= kReadTool | kCollectionTool | kHybridTool | kProviderStatus;
  if (reads && policy_provider_reads_allowed(policy)) gates |= kProviderTool;
  if (policy_writes_allowed(policy)) gates |= kWriteTool;
  return gates;
}

void write_tool(ReplyLine& reply, const Tool& tool) {
  reply.raw(R"({"name":)")
      .string(tool.name)
      .raw(R"(,"description":)")
      .string(tool.description)
      .raw(R"(,"inputSchema":)")
      .raw(tool.input_schema)
      .raw((tool.gates & kWriteTool) != 0 ? kWriteAnnotations : kReadAnnotations);
}

}  // namespace

void write_tool_list(RequestId id, const McpPolicy& policy) {
  const std::uint32_t open = open_gates(policy);
  ReplyLine reply;
  reply.raw(R"({"jsonrpc":"2.0","id":)").id(id).raw(R"(,"result":{"tools":[)");
  std::string_view separator;
  for (const Tool& tool : tool_table()) {
    if ((tool.gates & ~open) != 0) continue;
    reply.raw(separator);
    write_tool(reply, tool);
    separator = ",";
  }
  reply.raw("]}}");
}

}  // namespace kova
