// kova_execute through the frame, with tokens for exactly what it would run.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "approval/token.h"
#include "platform/clock.h"
#include "support/reference_digest.h"
#include "unit/approval/approval_fixture.h"
#include "unit/tools/tool_fixture.h"

namespace kova::testing {

/// A JSON string of a statement, whatever white space it has.
inline std::string json_statement(std::string_view sql) {
  std::string literal;
  for (const char c : json_literal(sql)) {
    const unsigned byte = static_cast<unsigned char>(c);
    literal += byte < 0x20 ? "\\u00" + to_hex(std::string_view(&c, 1)) : std::string(1, c);
  }
  return literal;
}

inline const std::string kBadExecute =
    tool_error("kova_execute requires bounded SQL and rejects unknown arguments");

class ExecuteTool : public ToolCalls {
 protected:
  ExecuteTool() {
    policy->writes_enabled = true;
    policy->write_type_mask = kInsert | kUpdate | kDelete;
    TextOut(policy->client_id).copy_cut("desk-7");
    TextOut(policy->approval_state_directory).copy_cut(state.path());
    fill(policy->write_tables, {"LOG", "T"});
  }

  std::string execute(std::string_view sql) {
    return call("kova_execute", "{\"sql\":" + json_statement(sql) + "}");
  }
  /// `token` is JSON.
  std::string execute_with(std::string_view sql, std::string_view token) {
    return call("kova_execute", "{\"sql\":" + json_statement(sql) +
                                    ",\"approval_token\":" + std::string(token) + "}");
  }
  /// A token for a canonical text, made anew, as JSON.
  std::string token_for(std::string_view canonical) {
    char token[kTokenCapacity];
    char error[kApprovalMessageCapacity];
    EXPECT_TRUE(
        approval_issue(*policy, to_hex(reference_sha256(canonical)), unix_seconds(), token, error))
        << error;
    return json_literal(token);
  }
  static std::string approval_required(std::string_view type, std::string_view table,
                                       std::string_view canonical, std::string_view ttl = "300",
                                       std::string_view id = "7") {
    return reply_with(
        R"("result":{"content":[{"type":"text","text":"operator approval is required for this )"
        R"(exact normalized operation"}],"structuredContent":{"approval_required":true,)"
        R"("operation_type":")" +
            std::string(type) + R"(","table":")" + std::string(table) +
            R"(","operation_digest":")" + to_hex(reference_sha256(canonical)) +
            R"(","policy":"Demo_1","maximum_ttl_seconds":)" + std::string(ttl) +
            R"(},"isError":true})",
        id);
  }
  [[nodiscard]] std::size_t marker_count() const { return names_in(state.path()).size(); }

  TemporaryDirectory state;
  ScopedEnvironment secret_variable{kApprovalSecret, kSecret};
};

}  // namespace kova::testing
