// What the check modes say of policies that no file can make.
#include "app/modes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "base/exit_code.h"
#include "base/text.h"
#include "platform/console.h"
#include "platform/large_block.h"
#include "support/captured_output.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::Stream;

class CheckModes : public ::testing::Test {
 protected:
  CheckModes() { prepare_standard_streams(); }

  /// The exit code, then what was written to either stream.
  void expect(int (*mode)(const Startup&), int code, const std::string& out,
              const std::string& err) {
    CapturedOutput output(Stream::kOutput);
    CapturedOutput error(Stream::kError);
    LargeBlock line_buffer(1);
    EXPECT_EQ(mode({.line_buffer = line_buffer,
                    .protocol = protocol_,
                    .tools = tools_,
                    .operand = nullptr}),
              code);
    EXPECT_EQ(output.take(), out);
    std::string diagnosed = error.take();
    std::erase(diagnosed, '\r');
    EXPECT_EQ(diagnosed, err);
  }

  McpPolicy policy_{};
  AuditContext audit_{};
  DbSession session_;
  ToolContext tools_{policy_, audit_, session_};
  ProtocolState protocol_;
};

TEST_F(CheckModes, AnInvalidPolicyWithoutAMessage) {
  for (const auto mode : {check_policy_mode, check_config_mode}) {
    expect(mode, kExitFailure, "", "MCP_CONFIG_INVALID: policy validation failed\n");
  }
  TextOut(policy_.error).copy_cut("MCP policy read failed");
  for (const auto mode : {check_policy_mode, check_config_mode}) {
    expect(mode, kExitFailure, "", "MCP_CONFIG_INVALID: MCP policy read failed\n");
  }
}

}  // namespace
}  // namespace kova
