// An audit file in a folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "audit/audit.h"
#include "base/text.h"
#include "support/environment.h"
#include "support/temporary_directory.h"

namespace kova::testing {

class AuditFile : public ::testing::Test {
 protected:
  AuditFile() {
    TextOut(context.tool).copy_cut("kova_query");
    TextOut(context.correlation_id).copy_cut("7");
    TextOut(context.policy_decision).copy_cut("allow");
    policy->valid = true;
  }

  void write(AuditOutcome outcome = {true, 1, 2}) {
    context.started_ms = tick_ms();
    write_audit_record(context, *policy, outcome);
  }
  [[nodiscard]] std::string content() const { return read_file(path); }
  /// Whether the next record holds this text.
  bool next_record_holds(std::string_view text) {
    const std::size_t before = content().size();
    write();
    return content().substr(before).find(text) != std::string::npos;
  }

  TemporaryDirectory folder;
  std::string path = folder.file("audit.jsonl");
  ScopedEnvironment path_variable{"KOVA_MCP_AUDIT", path};
  ScopedEnvironment client_variable{"KOVA_MCP_CLIENT_ID", "desk-7"};
  ScopedEnvironment database_variable{"KOVA_MCP_DATABASE", "SHOP"};
  AuditContext context{};
  std::unique_ptr<McpPolicy> policy = std::make_unique<McpPolicy>();
};

inline int lines_in(std::string_view text) {
  int lines = 0;
  for (const char c : text) lines += c == '\n';
  return lines;
}

}  // namespace kova::testing
