// One tools/call at a time: its reply line, what it sent to the engine and what it left for the
// audit log.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "json/json.h"
#include "json/reply.h"
#include "policy/predicates.h"
#include "support/allocation_failure.h"
#include "support/captured_output.h"
#include "support/environment.h"
#include "support/temporary_directory.h"
#include "tools/tool_call.h"
#include "unit/db/session_fixture.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {

inline std::string reply_with(std::string_view members, std::string_view id = "7") {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) + "," + std::string(members) + "}\n";
}

/// The reply line of a failed tool.
inline std::string tool_error(std::string_view message, std::string_view id = "7") {
  return reply_with("\"result\":{\"content\":[{\"type\":\"text\",\"text\":" +
                        json_literal(message) + "}],\"isError\":true}",
                    id);
}

/// The reply line of a tool that returns this JSON.
inline std::string tool_success(std::string_view json, std::string_view id = "7") {
  return reply_with("\"result\":{\"content\":[{\"type\":\"text\",\"text\":" + json_literal(json) +
                        "}],\"structuredContent\":" + std::string(json) + ",\"isError\":false}",
                    id);
}

/// The reply line of refused params.
inline std::string params_error(std::string_view message, std::string_view id = "7") {
  return reply_with("\"error\":{\"code\":-32602,\"message\":" + json_literal(message) + "}", id);
}

inline const std::string kUnknownTool = params_error("unknown Vantreo tool");

class ToolCalls : public EngineSession {
 protected:
  /// Handles a whole request and returns its reply line. With a number, that allocation of the
  /// call fails.
  std::string handle(std::string_view request, int failing_allocation = 0) {
    static std::array<JsonToken, kMessageTokenCapacity> tokens;
    JsonDoc doc;
    EXPECT_TRUE(json_parse(request, tokens.data(), kMessageTokenCapacity, doc)) << request;
    const int id = json_find(doc, 0, "id");
    const int params = json_find(doc, 0, "params");
    ToolContext context{*policy, audit, session, trace};
    CapturedOutput output;
    {
      std::optional<AllocationFailure> failure;
      if (failing_allocation > 0) failure.emplace(failing_allocation);
      RpcError error;
      if (!handle_tools_call(doc, id, params, context, error)) {
        write_error_reply({.doc = &doc, .token = id}, error.code, error.message);
      }
    }
    return output.take();
  }
  std::string handle_params(std::string_view params, std::string_view id = "7") {
    return handle("{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) +
                  ",\"method\":\"tools/call\",\"params\":" + std::string(params) + "}");
  }
  std::string call(std::string_view tool, std::string_view arguments) {
    return handle_params("{\"name\":" + json_literal(tool) +
                         ",\"arguments\":" + std::string(arguments) + "}");
  }
  std::string call(std::string_view tool) {
    return handle_params("{\"name\":" + json_literal(tool) + "}");
  }

  void use_no_policy() { policy = no_policy(); }
  /// Everything that was appended to the audit file.
  [[nodiscard]] std::string audit_log() const { return read_file(audit_path); }
  [[nodiscard]] int audit_records() const {
    int lines = 0;
    for (const char c : audit_log()) lines += c == '\n';
    return lines;
  }
  void expect_audit(std::string_view decision, std::string_view objects) const {
    EXPECT_EQ(audit.policy_decision, decision);
    EXPECT_EQ(audit.objects, objects);
  }

  TemporaryDirectory folder;
  std::string audit_path = folder.file("audit.jsonl");
  ScopedEnvironment audit_variable{"KOVA_MCP_AUDIT", audit_path};
  ScopedEnvironment client_variable{"KOVA_MCP_CLIENT_ID", "desk-7"};
  ScopedEnvironment providers_switch{kDisableProviders};
  ScopedEnvironment writes_switch{kDisableWrites};
  std::unique_ptr<McpPolicy> policy = loaded_policy();
  AuditContext audit{};
  CallTrace* trace = nullptr;
};

}  // namespace kova::testing
