// kova_execute: arguments, classification, approval, and the bytes that run.
#include "tools/execute_tool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/digest_failure.h"
#include "unit/policy/write_generator.h"
#include "unit/tools/execute_fixture.h"

namespace kova::testing {
namespace {

const std::string kWriteDone =
    tool_success(R"({"status":"OK","columns":[],"rows":[],"rowCount":0,"truncated":false})");

// --- writes off -------------------------------------------------------------------------------

TEST_F(ExecuteTool, WithWritesOffThereIsNoSuchTool) {
  const auto expect_unknown = [this] {
    for (const char* arguments : {R"({"sql":"DELETE FROM LOG"})", "{}", "null",
                                  R"({"sql":"DELETE FROM LOG","approval_token":"x"})"})
      EXPECT_EQ(call("kova_execute", arguments), kUnknownTool) << arguments;
    EXPECT_EQ(call("kova_execute"), kUnknownTool);
  };
  policy->writes_enabled = false;
  expect_unknown();
  policy->writes_enabled = true;
  policy->write_type_mask = 0;
  expect_unknown();
  policy->write_type_mask = kDelete;
  policy->write_tables.count = 0;
  expect_unknown();
  policy->write_tables.count = 1;
  writes_switch.set("on");
  expect_unknown();
  writes_switch.unset();
  use_no_policy();
  expect_unknown();
  EXPECT_EQ(audit_records(), 0);
  EXPECT_EQ(library.calls(), Calls{});
}

// The frame's earlier checks come first.
TEST_F(ExecuteTool, AnInvalidPolicyAnswersFirst) {
  policy->writes_enabled = false;
  policy->valid = false;
  TextOut(policy->error).copy_cut("unsupported MCP write type");
  EXPECT_EQ(execute("DELETE FROM LOG"), tool_error("unsupported MCP write type"));
  expect_audit("deny", "");
}

TEST_F(ExecuteTool, WorksWithReadsOff) {
  policy->reads_enabled = false;
  EXPECT_EQ(execute("DELETE FROM LOG"), kWriteDone);
}

// --- arguments --------------------------------------------------------------------------------

TEST_F(ExecuteTool, ArgumentsAreAnObjectOfKnownMembers) {
  for (const char* arguments :
       {"null", "[]", "\"DELETE FROM LOG\"", "5", "true", "{}", R"({"approval_token":"x"})",
        R"({"sql":5})", R"({"sql":null})", R"({"sql":["DELETE FROM LOG"]})", R"({"sql":{}})",
        R"({"sql":"DELETE FROM LOG","dry_run":true})", R"({"dry_run":1,"sql":"DELETE FROM LOG"})",
        R"({"sql":"DELETE FROM LOG","max_rows":1})", R"({"sql":"DELETE FROM LOG","token":"x"})",
        R"({"SQL":"DELETE FROM LOG"})", R"({"s\u0071l":"DELETE FROM LOG"})",
        R"({"sql":"DELETE FROM LOG \ud800"})"}) {
    EXPECT_EQ(call("kova_execute", arguments), kBadExecute) << arguments;
    expect_audit("allow", "");
  }
  EXPECT_EQ(call("kova_execute"), kBadExecute);
  EXPECT_EQ(audit_records(), 19);
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(ExecuteTool, MetaIsTolerated) {
  EXPECT_EQ(call("kova_execute", R"({"_meta":{"a":[1]},"sql":"DELETE FROM LOG"})"), kWriteDone);
}

TEST_F(ExecuteTool, ATextHasUpTo32768Bytes) {
  const std::string head = "DELETE FROM LOG WHERE A=";
  const std::string text = head + std::string(32767 - head.size(), '1');
  EXPECT_EQ(execute(text), kWriteDone);
  EXPECT_EQ(execute(text + ";"), kWriteDone);
  EXPECT_EQ(library.statements(), (Calls{text + ";", text + ";"}));
  library.forget_calls();
  EXPECT_EQ(execute(text + "1"), tool_error("normalized write is too large"));
  EXPECT_EQ(execute(text + "1;"), kBadExecute);
  EXPECT_EQ(execute(text + "  "), kBadExecute);
  EXPECT_EQ(execute(std::string(500000, ' ') + "DELETE FROM LOG"), kBadExecute);
  // A text that is full inside a literal is refused without a message.
  EXPECT_EQ(execute("DELETE FROM LOG WHERE A='" + std::string(32768 - 25, 'x')), tool_error(""));
  expect_audit("allow", "");
  EXPECT_EQ(library.calls(), Calls{});
}

// --- classification ---------------------------------------------------------------------------

TEST_F(ExecuteTool, TheClassifierHasItsOwnMessages) {
  struct Row {
    const char* sql;
    const char* message;
  };
  constexpr Row kRows[] = {
      {"", "write SQL size is invalid"},
      {" ", "write syntax cannot be classified"},
      {"DELETE FROM LOG -- x", "comments are not allowed in writes"},
      {"DELETE FROM LOG; DELETE FROM LOG", "only one write statement is allowed"},
      {"DELETE FROM LOG WHERE A = 'x", "unterminated write literal"},
      {"SELECT A FROM LOG", "only INSERT, UPDATE, and DELETE are classifiable writes"},
      {"DELETE FROM ORDERS", "write type or target table is not allowed by MCP policy"},
      {"UPDATE LOG SET A = (DROP)", "write contains a prohibited operation"},
  };
  for (const bool approval : {false, true}) {
    policy->approval_required = approval;
    for (const Row& row : kRows) {
      EXPECT_EQ(execute(row.sql), tool_error(row.message)) << row.sql;
      expect_audit("allow", "");
      // Before any look at the token.
      EXPECT_EQ(execute_with(row.sql, "5"), tool_error(row.message)) << row.sql;
      expect_audit("allow", "");
    }
  }
  EXPECT_EQ(audit_records(), 32);
  EXPECT_EQ(library.calls(), Calls{});
}

// A decoded text ends at an escaped NUL; what follows is neither classified nor run.
TEST_F(ExecuteTool, ATextEndsAtAnEscapedNul) {
  EXPECT_EQ(call("kova_execute", R"({"sql":"DELETE FROM LOG\u0000; DROP TABLE LOG"})"), kWriteDone);
  EXPECT_EQ(library.statements(), (Calls{"DELETE FROM LOG;"}));
}

// --- no approval asked ------------------------------------------------------------------------

TEST_F(ExecuteTool, RunsTheCanonicalText) {
  EXPECT_EQ(execute("  insert   into log (note)\tvalues\n('a  B; -- it''s')  ;  "), kWriteDone);
  EXPECT_EQ(library.statements(), (Calls{"INSERT INTO LOG (NOTE) VALUES ('a  B; -- it''s');"}));
  expect_audit("allow", "LOG");
  const std::string log = audit_log();
  EXPECT_NE(log.find(R"("tool":"kova_execute","policy":"Demo_1","policy_decision":"allow",)"
                     R"("objects":"LOG","duration_ms":)"),
            std::string::npos)
      << log;
  EXPECT_TRUE(log.ends_with(R"("rows":0,"bytes":69,"status":"ok","error_class":"none"})"
                            "\r\n"))
      << log;
}

TEST_F(ExecuteTool, DecodesTheText) {
  EXPECT_EQ(call("kova_execute",
                 R"({"sql":"update\nlog\u0020set a = \u0027caf\u00e9\t\"x\"\u0027\r\n;"})"),
            kWriteDone);
  EXPECT_EQ(library.statements(), (Calls{"UPDATE LOG SET A = 'caf\xC3\xA9\t\"x\"';"}));
}

TEST_F(ExecuteTool, AWriteAnswersAtMostOneRow) {
  library.answer("DELETE FROM LOG;",
                 {.status = "2 rows", .columns = {"N"}, .rows = {{"1"}, {"2"}}});
  EXPECT_EQ(execute("delete from log"),
            tool_success(R"({"status":"2 rows","columns":["N"],"rows":[["1"]],)"
                         R"("rowCount":1,"truncated":true})"));
}

TEST_F(ExecuteTool, ATokenThatNobodyAskedForIsNotRead) {
  for (const char* token : {"null", "5", "\"\"", "\"x\"", "[]", "\"\\ud800\""}) {
    EXPECT_EQ(execute_with("DELETE FROM LOG", token), kWriteDone) << token;
    expect_audit("allow", "LOG");
  }
  EXPECT_EQ(execute_with("DELETE FROM LOG", "\"" + std::string(5000, 'x') + "\""), kWriteDone);
  EXPECT_EQ(marker_count(), 0U);
}

TEST_F(ExecuteTool, AFailureHasTheEnginesMessage) {
  library.answer("DELETE FROM LOG;", {.code = 0, .status = "UNIQUE constraint failed"});
  EXPECT_EQ(execute("DELETE FROM LOG"), tool_error("UNIQUE constraint failed"));
  expect_audit("allow", "LOG");
  library.answer("DELETE FROM LOG;", {.code = -1, .status = ""});
  EXPECT_EQ(execute("DELETE FROM LOG"), tool_error("database statement failed"));
  disconnect(session);
  password_variable.unset();
  EXPECT_EQ(execute("DELETE FROM LOG"), tool_error("authenticated Vantreo profile is unavailable"));
}

// --- approval ---------------------------------------------------------------------------------

class Approved : public ExecuteTool {
 protected:
  Approved() { policy->approval_required = true; }
  void expect_denied(std::string_view sql, std::string_view token, std::string_view message) {
    EXPECT_EQ(execute_with(sql, token), tool_error(message)) << token;
    expect_audit("deny", "LOG");
  }
};

TEST_F(Approved, AsksForAnApproval) {
  EXPECT_EQ(execute("insert  into log values ('a  B')"),
            approval_required("INSERT", "LOG", "INSERT INTO LOG VALUES ('a  B');"));
  expect_audit("approval_required", "LOG");
  EXPECT_EQ(execute("update t set a=1;"), approval_required("UPDATE", "T", "UPDATE T SET A=1;"));
  EXPECT_EQ(execute("delete from log"), approval_required("DELETE", "LOG", "DELETE FROM LOG;"));
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(marker_count(), 0U);
  const std::string log = audit_log();
  EXPECT_EQ(audit_records(), 3);
  EXPECT_NE(log.find(R"("policy_decision":"approval_required","objects":"LOG","duration_ms":)"),
            std::string::npos)
      << log;
  EXPECT_TRUE(log.ends_with(R"("rows":0,"bytes":0,"status":"error","error_class":"tool_error"})"
                            "\r\n"))
      << log;
}

TEST_F(Approved, TheAnswerIsOneExactLine) {
  policy->approval_ttl_seconds = 30;
  EXPECT_EQ(handle(R"({"jsonrpc":"2.0","id":"a\u0042\"\n","method":"tools/call","params":)"
                   R"({"name":"kova_execute","arguments":{"sql":"DELETE FROM T"}}})"),
            "{\"jsonrpc\":\"2.0\",\"id\":\"aB\\\"\\n\",\"result\":{\"content\":[{\"type\":\"text\","
            "\"text\":\"operator approval is required for this exact normalized operation\"}],"
            "\"structuredContent\":{\"approval_required\":true,\"operation_type\":\"DELETE\","
            "\"table\":\"T\",\"operation_digest\":"
            "\"cb062bc682c4948c493b67ac874032ac901d00662755e1038828c6f21e155954\","
            "\"policy\":\"Demo_1\",\"maximum_ttl_seconds\":30},\"isError\":true}}\n");
}

// The result depends neither on the secret nor on the state directory.
TEST_F(Approved, AsksWithoutASecret) {
  secret_variable.unset();
  TextOut(policy->approval_state_directory).copy_cut(state.file("gone"));
  policy->approval_ttl_seconds = 900;
  EXPECT_EQ(execute("DELETE FROM LOG"),
            approval_required("DELETE", "LOG", "DELETE FROM LOG;", "900"));
}

TEST_F(Approved, ATokenRunsItsStatementOnce) {
  const std::string token = token_for("UPDATE LOG SET A = 'x  Y';");
  EXPECT_EQ(execute_with("update   log set a = 'x  Y'", token), kWriteDone);
  expect_audit("approval_accepted", "LOG");
  EXPECT_EQ(library.statements(), (Calls{"UPDATE LOG SET A = 'x  Y';"}));
  EXPECT_EQ(marker_count(), 1U);
  EXPECT_NE(audit_log().find(R"("policy_decision":"approval_accepted","objects":"LOG",)"),
            std::string::npos);
  for (int i = 0; i < 2; ++i) {
    expect_denied("update   log set a = 'x  Y'", token,
                  "approval token was already used or replay state is unavailable");
  }
  EXPECT_EQ(library.statements().size(), 1U);
  EXPECT_EQ(audit_records(), 3);
  // Asked once more without a token, it asks again.
  EXPECT_EQ(execute("update log set a = 'x  Y'"),
            approval_required("UPDATE", "LOG", "UPDATE LOG SET A = 'x  Y';"));
}

TEST_F(Approved, AnotherSpellingOfTheStatementIsTheSameOne) {
  const std::string canonical = "UPDATE LOG SET A = 'x';";
  for (const char* sql :
       {"UPDATE LOG SET A = 'x'", " update\tlog\nset  a\r= 'x' ; ", "uPDATE lOG sET a = 'x';"})
    EXPECT_EQ(execute_with(sql, token_for(canonical)), kWriteDone) << sql;
  EXPECT_EQ(library.statements(), (Calls{canonical, canonical, canonical}));
}

TEST_F(Approved, AnotherStatementNeedsAnotherToken) {
  const std::string token = token_for("UPDATE LOG SET A = 'x' WHERE B=1;");
  for (const char* sql : {"UPDATE LOG SET A = 'X' WHERE B=1", "UPDATE LOG SET A = 'x ' WHERE B=1",
                          "UPDATE LOG SET A = 'x' WHERE B=2", "UPDATE LOG SET A = 'x'",
                          "UPDATE LOG SET A = 'x' WHERE B = 1", "UPDATE LOG SET A ='x' WHERE B=1"})
    expect_denied(sql, token, kFieldsInvalid);
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(marker_count(), 0U);
  EXPECT_EQ(execute_with("UPDATE LOG SET A = 'x' WHERE B=1", token), kWriteDone);
}

TEST_F(Approved, ATokenIsATextOfUpTo255Bytes) {
  const std::string token = token_for("DELETE FROM LOG;");
  const auto padded = [&](std::size_t size) {
    std::string text = token.substr(0, token.size() - 1);
    return text + std::string(size + 1 - text.size(), '.') + "\"";
  };
  for (const std::string& bad : {std::string("null"), std::string("5"), std::string("true"),
                                 std::string("{}"), "[" + token + "]", std::string("\"\\ud800\""),
                                 padded(256), padded(257), "\"" + std::string(100000, 'x') + "\""})
    expect_denied("DELETE FROM LOG", bad, kTokenInvalid);
  EXPECT_EQ(marker_count(), 0U);
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(execute_with("DELETE FROM LOG", padded(255)), kWriteDone);
  EXPECT_EQ(audit_records(), 10);
}

TEST_F(Approved, AnEmptyTokenIsThere) {
  expect_denied("DELETE FROM LOG", "\"\"", kFieldsInvalid);
}

// Presence is looked up by its source text: an escaped spelling is a member that is not found.
TEST_F(Approved, AnEscapedSpellingIsNoToken) {
  EXPECT_EQ(call("kova_execute", R"({"sql":"DELETE FROM LOG","approval_t\u006fken":)" +
                                     token_for("DELETE FROM LOG;") + "}"),
            approval_required("DELETE", "LOG", "DELETE FROM LOG;"));
}

TEST_F(Approved, TheTokensTextIsDecoded) {
  std::string token = token_for("DELETE FROM LOG;");
  ASSERT_EQ(token.substr(0, 2), "\"v");
  EXPECT_EQ(execute_with("DELETE FROM LOG", "\"\\u0076" + token.substr(2)), kWriteDone);
  token = token_for("DELETE FROM LOG;");
  token.insert(token.size() - 1, "\\u0000.x");
  EXPECT_EQ(execute_with("DELETE FROM LOG", token), kWriteDone);
}

TEST_F(Approved, TheVerifierHasItsOwnMessages) {
  const std::string token = token_for("DELETE FROM LOG;");
  expect_denied("DELETE FROM LOG", "\"v1.x\"", kFieldsInvalid);
  std::string forged = token;
  forged[forged.size() - 2] = forged[forged.size() - 2] == '7' ? '8' : '7';
  expect_denied("DELETE FROM LOG", forged, kBadSignature);
  policy->approval_ttl_seconds = 100;
  expect_denied("DELETE FROM LOG", token, kExpired);
  policy->approval_ttl_seconds = 300;
  secret_variable.set(std::string(31, 's'));
  expect_denied("DELETE FROM LOG", token, kNoSecret);
  secret_variable.set(kSecret);
  TextOut(policy->approval_state_directory).copy_cut(state.file("gone"));
  expect_denied("DELETE FROM LOG", token, kUsed);
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(marker_count(), 0U);
  TextOut(policy->approval_state_directory).copy_cut(state.path());
  EXPECT_EQ(execute_with("DELETE FROM LOG", token), kWriteDone);
}

// Once accepted, a token is spent whatever becomes of the write.
TEST_F(Approved, AFailedWriteSpendsItsToken) {
  library.answer("DELETE FROM LOG;", {.code = 0, .status = "database is locked"});
  const std::string token = token_for("DELETE FROM LOG;");
  EXPECT_EQ(execute_with("DELETE FROM LOG", token), tool_error("database is locked"));
  expect_audit("approval_accepted", "LOG");
  library.answer("DELETE FROM LOG;", {});
  expect_denied("DELETE FROM LOG", token, kUsed);
  EXPECT_EQ(library.statements().size(), 1U);
}

// The marker is there before the statement runs: a crash in between leaves the token spent.
TEST_F(Approved, TheMarkerPrecedesTheStatement) {
  std::size_t markers_before = 99;
  library.on_exec = [&](const char* statement) {
    if (std::string_view(statement) == "DELETE FROM LOG;") markers_before = marker_count();
  };
  EXPECT_EQ(execute_with("DELETE FROM LOG", token_for("DELETE FROM LOG;")), kWriteDone);
  EXPECT_EQ(markers_before, 1U);
}

TEST_F(Approved, TheKillSwitchStandsBeforeTheToken) {
  const std::string token = token_for("DELETE FROM LOG;");
  writes_switch.set("1");
  EXPECT_EQ(execute_with("DELETE FROM LOG", token), kUnknownTool);
  EXPECT_EQ(marker_count(), 0U);
  EXPECT_EQ(audit_records(), 0);
  writes_switch.unset();
  EXPECT_EQ(execute_with("DELETE FROM LOG", token), kWriteDone);
}

// A policy that no longer allows the write refuses it before its token is looked at.
TEST_F(Approved, ThePolicyStandsBeforeTheToken) {
  const std::string token = token_for("DELETE FROM LOG;");
  policy->write_type_mask = kInsert;
  EXPECT_EQ(execute_with("DELETE FROM LOG", token),
            tool_error("write type or target table is not allowed by MCP policy"));
  expect_audit("allow", "");
  EXPECT_EQ(marker_count(), 0U);
}

// What is approved is what runs: the digest in the reply is that of the bytes which the token lets
// through.
TEST_F(Approved, TheExecutedBytesAreTheApprovedOnes) {
  fill(policy->write_tables, {"T", "ORDERS", "LOG"});
  WriteGenerator writes;
  for (int i = 0; i < 300; ++i) {
    const Pieces pieces = writes.statement();
    // Bytes that JSON cannot carry as they stand are left to the classifier's own tests.
    std::string sql = WriteGenerator::joined(pieces);
    std::replace_if(
        sql.begin(), sql.end(), [](char c) { return c < 0 || c == 0x7F; }, '?');
    library.forget_calls();
    const std::string asked = execute(sql);
    const std::string marker = "\"operation_digest\":\"";
    ASSERT_NE(asked.find(marker), std::string::npos) << asked;
    const std::string digest = asked.substr(asked.find(marker) + marker.size(), 64);
    char token[kTokenCapacity];
    char error[kApprovalMessageCapacity];
    ASSERT_TRUE(approval_issue(*policy, digest, unix_seconds(), token, error)) << error;
    ASSERT_EQ(library.statements(), Calls{});
    ASSERT_EQ(execute_with(sql, json_literal(token)), kWriteDone) << sql;
    ASSERT_EQ(library.statements().size(), 1U);
    ASSERT_EQ(to_hex(reference_sha256(library.statements()[0])), digest) << sql;
  }
  EXPECT_EQ(marker_count(), 300U);
}

TEST_F(Approved, AFailedDigestRunsNothing) {
  const std::string token = token_for("DELETE FROM LOG;");
  const DigestFailure failing;
  EXPECT_EQ(execute("DELETE FROM LOG"), tool_error("operation digest failed"));
  expect_audit("allow", "");
  EXPECT_EQ(execute_with("DELETE FROM LOG", token), tool_error("operation digest failed"));
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(marker_count(), 0U);
}

TEST_F(Approved, UnknownArgumentsStandBeforeEverything) {
  EXPECT_EQ(call("kova_execute", R"({"sql":"DROP","approval_token":5,"dry_run":true})"),
            kBadExecute);
  expect_audit("allow", "");
}

}  // namespace
}  // namespace kova::testing
