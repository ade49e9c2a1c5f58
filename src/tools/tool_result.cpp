#include "tools/tool_result.h"

namespace kova {

RequestId request_id(const ToolCall& call) {
  return {.doc = &call.doc, .token = call.id};
}

void audit_failure(const ToolContext& context) {
  write_audit_record(context.audit, context.policy, {.success = false, .rows = 0, .bytes = 0});
}

void refuse_unknown_tool(const ToolCall& call) {
  write_error_reply(request_id(call), kInvalidParams, "unknown Vantreo tool");
}

void set_decision(ToolContext& context, std::string_view decision) {
  TextOut(context.audit.policy_decision).copy_cut(decision);
}

void set_objects(ToolContext& context, std::string_view objects) {
  TextOut(context.audit.objects).copy_cut(objects);
}

void write_tool_error(const ToolCall& call, ToolContext& context, std::string_view message) {
  ReplyLine()
      .raw(R"({"jsonrpc":"2.0","id":)")
      .id(request_id(call))
      .raw(R"(,"result":{"content":[{"type":"text","text":)")
      .string(message)
      .raw(R"(}],"isError":true}})");
  audit_failure(context);
}

void refuse_tool(const ToolCall& call, ToolContext& context, std::string_view decision,
                 std::string_view message) {
  set_decision(context, decision);
  write_tool_error(call, context, message);
}

void write_tool_success(const ToolCall& call, ToolContext& context, std::string_view json,
                        std::uint32_t rows) {
  ReplyLine()
      .raw(R"({"jsonrpc":"2.0","id":)")
      .id(request_id(call))
      .raw(R"(,"result":{"content":[{"type":"text","text":)")
      .string(json)
      .raw(R"(}],"structuredContent":)")
      .raw(json)
      .raw(R"(,"isError":false}})");
  write_audit_record(
      context.audit, context.policy,
      {.success = true, .rows = rows, .bytes = static_cast<std::uint32_t>(json.size())});
}

void respond_with_statement(const ToolCall& call, ToolContext& context, const char* sql,
                            std::uint32_t max_rows) {
  StatementResult result;
  if (execute_statement(context.session, sql, max_rows, result)) {
    write_tool_success(call, context, {result.text, result.textLength}, result.rowCount);
    return;
  }
  const std::string_view error(result.error);
  write_tool_error(call, context, error.empty() ? "database tool failed" : error);
}

}  // namespace kova
