// What every tool does with its audit record and its result or message.
#include "tools/tool.h"

#include <gtest/gtest.h>

#include <string>

#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

class ToolTest : public ToolCalls {
 protected:
  ToolContext context{*policy, audit, session};
  ToolAnswer answer;
};

TEST_F(ToolTest, ARefusalByPolicySetsTheDecisionAndTheMessage) {
  set_decision(context, kAllow);
  EXPECT_FALSE(refuse_by_policy(context, answer, kKillSwitch, "off"));
  EXPECT_STREQ(audit.policy_decision, "kill_switch");
  EXPECT_STREQ(answer.message, "off");
  EXPECT_STREQ(answer.structured, "");
}

TEST_F(ToolTest, ObjectsAreCutAt128Characters) {
  set_objects(context, std::string(128, 'o'));
  EXPECT_EQ(audit.objects, std::string(128, 'o'));
  set_objects(context, std::string(129, 'p'));
  EXPECT_EQ(audit.objects, std::string(128, 'p'));
  set_objects(context, "");
  EXPECT_STREQ(audit.objects, "");
}

TEST_F(ToolTest, AStatementIsTheAnswer) {
  library.answer("s", {.status = "fine", .columns = {"C"}, .rows = {{"1"}}});
  EXPECT_TRUE(respond_with_statement(context, "s", 5, answer));
  EXPECT_EQ(answer.result.rowCount, 1U);
  EXPECT_STREQ(
      answer.result.text,
      R"({"status":"fine","columns":["C"],"rows":[["1"]],"rowCount":1,"truncated":false})");
}

TEST_F(ToolTest, AFailedStatementLeavesItsMessage) {
  library.answer("s", {.code = 0, .status = "no such table"});
  EXPECT_FALSE(respond_with_statement(context, "s", 5, answer));
  EXPECT_STREQ(answer.message, "no such table");
}

// The frame writes both.
TEST_F(ToolTest, ASuccessLeavesItsRowsAndBytes) {
  EXPECT_NE(call("kova_list_tables").find("\"isError\":false"), std::string::npos);
  EXPECT_NE(audit_log().find("\"status\":\"ok\""), std::string::npos) << audit_log();
  EXPECT_EQ(audit_log().find("\"bytes\":0,"), std::string::npos) << audit_log();
}

TEST_F(ToolTest, AFailureLeavesARecordWithNoRows) {
  EXPECT_EQ(call("kova_list_tables", "[]"), tool_error("this tool accepts no arguments"));
  EXPECT_NE(audit_log().find("\"rows\":0,\"bytes\":0,\"status\":\"error\""), std::string::npos)
      << audit_log();
}

TEST_F(ToolTest, AFailingAuditChangesNoReply) {
  audit_variable.set(folder.path());
  EXPECT_EQ(call("kova_list_tables", "[]"), tool_error("this tool accepts no arguments"));
}

}  // namespace
}  // namespace kova::testing
