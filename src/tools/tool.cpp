#include "tools/tool.h"

namespace kova {

void set_decision(ToolContext& context, std::string_view decision) {
  TextOut(context.audit.policy_decision).copy_cut(decision);
}

void set_objects(ToolContext& context, std::string_view objects) {
  TextOut(context.audit.objects).copy_cut(objects);
}

bool refuse_by_policy(ToolContext& context, ToolAnswer& answer, std::string_view decision,
                      std::string_view message) {
  set_decision(context, decision);
  return refuse(answer.message, message);
}

bool respond_with_statement(ToolContext& context, const char* sql, std::uint32_t max_rows,
                            ToolAnswer& answer) {
  if (execute_statement(context.session, sql, max_rows, answer.result)) return true;
  return refuse(answer.message, or_else(answer.result.error, "database tool failed"));
}

}  // namespace kova
