// kova_ai_status: up to three statements and one composed object.
#include "tools/ai_status_tool.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

const std::string kBadStatusArguments =
    tool_error("collection must be a safe Vantreo identifier and unknown fields are not allowed");
const std::string kUnsafeProvider = tool_error("provider must be a safe Vantreo identifier");
const std::string kProviderStatusOff =
    tool_error("provider status is disabled by policy or kill switch");
const std::string kMemory = tool_error("AI status memory limit");

constexpr char kStatus[] = "SHOW AI STATUS DOCS;";
constexpr char kJobs[] = "SHOW AI JOBS FOR DOCS;";
constexpr char kProvider[] = "SHOW AI PROVIDER LOCAL;";
constexpr char kPlain[] = R"({"collection":"DOCS"})";
constexpr char kWithProvider[] = R"({"collection":"DOCS","provider":"LOCAL"})";

class AiStatus : public ToolCalls {
 protected:
  AiStatus() {
    library.answer(kStatus, {.status = "ready", .columns = {"ROWS"}, .rows = {{"42"}}});
    library.answer(kJobs, {.status = "ok", .columns = {"JOB"}, .rows = {{"a"}, {"b"}}});
    library.answer(kProvider, {.status = "up", .columns = {"KIND"}, .rows = {{"hashed"}}});
  }
  std::string status(std::string_view arguments) { return call("kova_ai_status", arguments); }

  static inline const std::string kStatusJson =
      R"({"status":"ready","columns":["ROWS"],"rows":[["42"]],"rowCount":1,"truncated":true})";
  static inline const std::string kJobsJson =
      R"({"status":"ok","columns":["JOB"],"rows":[["a"],["b"]],"rowCount":2,"truncated":false})";
  static inline const std::string kProviderJson =
      R"({"status":"up","columns":["KIND"],"rows":[["hashed"]],"rowCount":1,"truncated":true})";
};

TEST_F(AiStatus, WithoutAProviderItsPartIsNull) {
  const std::string json =
      "{\"collection\":" + kStatusJson + ",\"provider\":null,\"jobs\":" + kJobsJson + "}";
  EXPECT_EQ(status(kPlain), tool_success(json));
  EXPECT_EQ(library.statements(), (Calls{kStatus, kJobs}));
  expect_audit("allow", "DOCS");
  const std::string log = audit_log();
  // The rows are the jobs'.
  EXPECT_NE(log.find("\"objects\":\"DOCS\",\"duration_ms\""), std::string::npos) << log;
  EXPECT_NE(log.find("\"rows\":2,\"bytes\":" + std::to_string(json.size()) + ",\"status\":\"ok\""),
            std::string::npos)
      << log;
}

TEST_F(AiStatus, WithAProviderThereAreThreeStatements) {
  EXPECT_EQ(status(kWithProvider),
            tool_success("{\"collection\":" + kStatusJson + ",\"provider\":" + kProviderJson +
                         ",\"jobs\":" + kJobsJson + "}"));
  EXPECT_EQ(library.statements(), (Calls{kStatus, kJobs, kProvider}));
  expect_audit("allow", "DOCS,LOCAL");
}

TEST_F(AiStatus, TheBoundsOfTheThree) {
  FakeResult many = {.status = "ok", .columns = {"N"}};
  for (int i = 0; i < 300; ++i) many.rows.push_back({std::to_string(i)});
  for (const char* statement : {kStatus, kJobs, kProvider}) library.answer(statement, many);
  const std::string reply = status(kWithProvider);
  EXPECT_NE(reply.find(R"("rows":[["0"]],"rowCount":1,"truncated":true},"provider":{"status":"ok",)"
                       R"("columns":["N"],"rows":[["0"]],"rowCount":1,"truncated":true},"jobs":)"),
            std::string::npos)
      << reply;
  EXPECT_NE(reply.find(R"("rowCount":256,"truncated":true}},"isError":false})"), std::string::npos);
  EXPECT_NE(audit_log().find("\"rows\":256,"), std::string::npos);
}

TEST_F(AiStatus, NamesAreSpelledAsTheClientDoes) {
  EXPECT_NE(status(R"({"provider":"9_lo\u0063al","collection":"docs","_meta":null})")
                .find("\"isError\":false"),
            std::string::npos);
  EXPECT_EQ(library.statements(),
            (Calls{"SHOW AI STATUS docs;", "SHOW AI JOBS FOR docs;", "SHOW AI PROVIDER 9_local;"}));
  expect_audit("allow", "docs,9_local");
}

TEST_F(AiStatus, TheLongestNames) {
  use_no_policy();
  const std::string collection(63, 'c');
  const std::string provider(63, 'p');
  EXPECT_NE(status("{\"collection\":\"" + collection + "\",\"provider\":\"" + provider + "\"}")
                .find("\"isError\":false"),
            std::string::npos);
  EXPECT_EQ(library.statements(),
            (Calls{"SHOW AI STATUS " + collection + ";", "SHOW AI JOBS FOR " + collection + ";",
                   "SHOW AI PROVIDER " + provider + ";"}));
  expect_audit("allow", collection + "," + provider);
}

TEST_F(AiStatus, ArgumentsAreKnown) {
  for (const char* arguments :
       {R"({"collection":"DOCS","x":1})", R"({"collection":"DOCS","top":1})",
        R"({"collection":"DOCS","provider":"LOCAL","text":"x"})",
        R"({"collection":"DOCS","Provider":"LOCAL"})", R"({"x":{},"collection":"DOCS"})"}) {
    EXPECT_EQ(status(arguments), kBadStatusArguments) << arguments;
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(AiStatus, TheProviderIsASafeName) {
  for (const std::string& provider :
       {std::string("null"), std::string("5"), std::string("true"), std::string("[\"LOCAL\"]"),
        std::string("{}"), std::string("\"\""), std::string("\"a-b\""), std::string("\"a b\""),
        std::string("\"LOCAL;\""), std::string("\"\\u0000\""), std::string("\"\\ud800\""),
        "\"" + std::string(64, 'p') + "\"", "\"" + std::string(5000, 'p') + "\""}) {
    EXPECT_EQ(status("{\"collection\":\"DOCS\",\"provider\":" + provider + "}"), kUnsafeProvider)
        << provider;
    // The names are noted after they were found good.
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(audit_records(), 13);
}

// An escaped spelling is a member, and it is not found.
TEST_F(AiStatus, AnEscapedProviderIsNotThere) {
  EXPECT_NE(status(R"({"collection":"DOCS","pr\u006fvider":"LOCAL"})").find("\"provider\":null"),
            std::string::npos);
  EXPECT_EQ(library.statements(), (Calls{kStatus, kJobs}));
}

// Unknown members are looked for before the provider.
TEST_F(AiStatus, TheChecksStandInOrder) {
  EXPECT_EQ(status(R"({"collection":"DOCS","provider":5,"x":1})"), kBadStatusArguments);
  EXPECT_EQ(status(R"({"collection":"DOCS","provider":5})"), kUnsafeProvider);
}

TEST_F(AiStatus, AProviderOfAnyTypeNeedsProviders) {
  providers_switch.set("1");
  for (const char* arguments : {kWithProvider, R"({"collection":"DOCS","provider":null})",
                                R"({"collection":"DOCS","provider":5,"x":1})",
                                R"({"x":1,"provider":[],"collection":"DOCS"})"}) {
    EXPECT_EQ(status(arguments), kProviderStatusOff) << arguments;
    expect_audit("kill_switch", "");
  }
  // The collection comes first, and without a provider the switch does not count.
  EXPECT_EQ(status(R"({"collection":"OTHER","provider":5})"),
            tool_error("collection is invalid or not allowed by MCP policy"));
  expect_audit("deny", "");
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_NE(status(kPlain).find("\"isError\":false"), std::string::npos);
}

TEST_F(AiStatus, AFailureIsInTheStatementsWordsAndEndsTheCall) {
  const Calls all = {kStatus, kJobs, kProvider};
  for (std::size_t failing = 0; failing < all.size(); ++failing) {
    library.forget_calls();
    const std::string failure = "statement " + std::to_string(failing) + " \"failed\"";
    library.answer(all[failing], {.code = 0, .status = failure});
    EXPECT_EQ(status(kWithProvider), tool_error(failure));
    expect_audit("allow", "DOCS,LOCAL");
    EXPECT_EQ(library.statements(),
              Calls(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(failing) + 1));
    library.answer(all[failing], {});
  }
  EXPECT_EQ(audit_records(), 3);
  disconnect(session);
  password_variable.unset();
  EXPECT_EQ(status(kPlain), tool_error("authenticated Vantreo profile is unavailable"));
}

// Results of any size are composed whole.
TEST_F(AiStatus, LargeResultsAreWhole) {
  FakeResult large = {.status = "ok", .columns = {"N"}};
  std::string rows;
  for (int i = 0; i < 64; ++i) {
    const std::string cell(16000, static_cast<char>('a' + i % 26));
    large.rows.push_back({cell});
    rows += (i == 0 ? "[\"" : ",[\"") + cell + "\"]";
  }
  library.answer(kJobs, large);
  EXPECT_EQ(status(kWithProvider),
            tool_success("{\"collection\":" + kStatusJson + ",\"provider\":" + kProviderJson +
                         ",\"jobs\":{\"status\":\"ok\",\"columns\":[\"N\"],\"rows\":[" + rows +
                         "],\"rowCount\":64,\"truncated\":false}}"));
}

// Running out of memory is a tool error wherever it happens, and the next call works.
TEST_F(AiStatus, WithoutMemoryThereIsOneToolError) {
  const std::string whole = status(kWithProvider);
  ASSERT_NE(whole.find("\"isError\":false"), std::string::npos);
  struct Row {
    const char* statement;
    int nth;  ///< of the allocations behind the statement
    std::string reply;
    std::size_t statements;
  };
  const std::string no_result = tool_error("database result byte limit exceeded");
  const Row rows[] = {
      {kStatus, 1, no_result, 1},
      {kJobs, 1, no_result, 2},
      {kProvider, 1, no_result, 3},
      // The composed object.
      {kProvider, 2, kMemory, 3},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.statement);
    library.forget_calls();
    std::optional<AllocationFailure> failure;
    library.on_exec = [&](const char* statement) {
      if (std::string_view(statement) == row.statement) failure.emplace(row.nth);
    };
    const std::string reply = status(kWithProvider);
    EXPECT_TRUE(AllocationFailure::happened());
    failure.reset();
    library.on_exec = nullptr;
    EXPECT_EQ(reply, row.reply);
    EXPECT_EQ(library.statements().size(), row.statements);
    expect_audit("allow", "DOCS,LOCAL");
    EXPECT_EQ(status(kWithProvider), whole);
  }
}

}  // namespace
}  // namespace kova::testing
