// An audit file that is the server's own standard output.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "audit/audit.h"
#include "platform/environment.h"
#include "support/environment.h"
#include "support/output_file.h"
#include "support/temporary_directory.h"

namespace kova::testing {
namespace {

class RefuseAuditIntoOutput : public ::testing::Test {
 protected:
  RefuseAuditIntoOutput() {
    write_file(output_, "");
    std::filesystem::create_hard_link(output_, folder_.file("hard"));
    write_file(folder_.file("other"), "");
  }

  /// What the variable names after a server has started with that value and that output.
  std::string named_after(const std::string& audit) {
    const ScopedEnvironment variable("KOVA_MCP_AUDIT", audit);
    const OutputFile output(output_);
    refuse_audit_into_output();
    return std::string(EnvironmentValue("KOVA_MCP_AUDIT").view());
  }

  const TemporaryDirectory folder_;
  const std::string output_ = folder_.file("output");
};

TEST_F(RefuseAuditIntoOutput, TakesTheVariableAwayThatNamesTheOutput) {
  EXPECT_EQ(named_after(output_), "");
  EXPECT_EQ(named_after(folder_.file("hard")), "");
}

TEST_F(RefuseAuditIntoOutput, LeavesEveryOtherValue) {
  for (const std::string& value : {folder_.file("other"), folder_.file("missing"), folder_.path(),
                                   std::string("output"), std::string()}) {
    EXPECT_EQ(named_after(value), value);
  }
}

TEST_F(RefuseAuditIntoOutput, LeavesAFileThatIsNoLongerTheOutput) {
  EXPECT_EQ(named_after(output_), "");
  const ScopedEnvironment variable("KOVA_MCP_AUDIT", output_);
  refuse_audit_into_output();
  EXPECT_EQ(EnvironmentValue("KOVA_MCP_AUDIT").view(), output_);
}

}  // namespace
}  // namespace kova::testing
