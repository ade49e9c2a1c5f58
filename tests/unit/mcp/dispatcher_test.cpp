#include "mcp/dispatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "policy/predicates.h"
#include "support/allocation_failure.h"
#include "support/captured_output.h"
#include "support/environment.h"
#include "support/guard_page.h"

namespace kova {
namespace {

using testing::AllocationFailure;
using testing::CapturedOutput;
using testing::GuardedText;
using testing::ScopedEnvironment;

std::string error_reply(std::string_view id, std::string_view code, std::string_view message) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) +
         ",\"error\":{\"code\":" + std::string(code) + ",\"message\":\"" + std::string(message) +
         "\"}}\n";
}

std::string bad_message() {
  return error_reply("null", "-32700", "invalid, duplicate, deep, or oversized JSON message");
}
std::string bad_version(std::string_view id) {
  return error_reply(id, "-32600", "jsonrpc must be 2.0");
}
std::string no_method(std::string_view id) {
  return error_reply(id, "-32600", "method is required");
}
std::string bad_id(std::string_view id) {
  return error_reply(id, "-32600", "request id is invalid or already used");
}
std::string notification_with_id(std::string_view id) {
  return error_reply(id, "-32600", "notifications must not contain an id");
}
std::string already(std::string_view id) {
  return error_reply(id, "-32600", "server is already initialized");
}
std::string not_yet(std::string_view id) {
  return error_reply(id, "-32002", "server is not initialized");
}
std::string unknown_method(std::string_view id) {
  return error_reply(id, "-32601", "method not found");
}
std::string bad_params(std::string_view id) {
  return error_reply(id, "-32602", "tools/call params are invalid or contain unknown fields");
}
std::string pong(std::string_view id) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) + ",\"result\":{}}\n";
}
std::string welcome(std::string_view id) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) +
         R"(,"result":{"protocolVersion":"2025-11-25","capabilities":{"tools":{"listChanged":false}},)"
         R"("serverInfo":{"name":"Vantreo MCP","version":"1.25-m8",)"
         R"("description":"Policy-constrained Vantreo database and AI search tools"}}})"
         "\n";
}

/// A message that differs from {"jsonrpc":"2.0","id":ID,"method":"METHOD"} in nothing else.
std::string request(std::string_view id, std::string_view method) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":")" + std::string(method) +
         "\"}";
}

class Dispatcher : public ::testing::Test {
 protected:
  Dispatcher() {
    policy_.valid = true;
    policy_.reads_enabled = true;
    policy_.provider_reads_enabled = true;
  }

  /// The reply to one message, which lies flush against an unreadable page.
  std::string send(std::string_view message) {
    const GuardedText text(message);
    CapturedOutput output;
    dispatch(text.view(), state_, tools_);
    return output.take();
  }

  ScopedEnvironment no_audit_{"KOVA_MCP_AUDIT"};
  ScopedEnvironment no_kill_switch_{kDisableProviders};
  McpPolicy policy_{};
  AuditContext audit_{};
  DbSession session_;
  ToolContext tools_{policy_, audit_, session_};
  ProtocolState state_;
};

class InitializedDispatcher : public Dispatcher {
 protected:
  InitializedDispatcher() { state_.Initialized = true; }
};

// --- the message ------------------------------------------------------------------------------

TEST_F(InitializedDispatcher, MessagesThatAreNoJsonObject) {
  for (const std::string_view message :
       {"", " ", "x", "{", "1", "null", "true", "\"ping\"", "[]", "[{}]",
        R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])",
        R"({"jsonrpc":"2.0","id":1,"method":"ping"},)",
        R"({"jsonrpc":"2.0","id":1,"method":"ping",})",
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"\xc0\x80\"}",
        R"({"jsonrpc":"2.0","id":1,"method":"ping"}{"jsonrpc":"2.0","id":2,"method":"ping"})"}) {
    SCOPED_TRACE(message);
    EXPECT_EQ(send(message), bad_message());
  }
  EXPECT_EQ(state_.request_ids.count(), 0U);
}

TEST_F(InitializedDispatcher, TokenAndDepthLimits) {
  // The message around the array has 8 tokens.
  const auto with_elements = [](std::string_view id, int count) {
    std::string text = R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":"ping","x":[)";
    for (int i = 0; i < count; ++i) text += i == 0 ? "0" : ",0";
    return text + "]}";
  };
  EXPECT_EQ(send(with_elements("1", 4096 - 9)), pong("1"));
  EXPECT_EQ(send(with_elements("2", 4096 - 8)), bad_message());
  const auto with_depth = [](std::string_view id, std::size_t arrays) {
    return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":"ping","x":)" +
           std::string(arrays, '[') + std::string(arrays, ']') + "}";
  };
  EXPECT_EQ(send(with_depth("3", 128)), pong("3"));
  EXPECT_EQ(send(with_depth("4", 129)), bad_message());
}

TEST_F(InitializedDispatcher, DuplicateKeysAnywhere) {
  for (const std::string_view message :
       {R"({"jsonrpc":"2.0","jsonrpc":"2.0","id":1,"method":"ping"})",
        R"({"jsonrpc":"2.0","id":1,"method":"ping","\u006dethod":"ping"})",
        R"({"jsonrpc":"2.0","id":1,"\u0069d":2,"method":"ping"})",
        R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"a":{"b":[{"c":1,"c":2}]}}})",
        R"({"jsonrpc":"2.0","id":1,"method":"ping","x":1,"x\u0000y":2})"}) {
    SCOPED_TRACE(message);
    EXPECT_EQ(send(message), bad_message());
  }
  EXPECT_EQ(state_.request_ids.count(), 0U);
  // Keys that do not decode are no duplicates.
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":1,"method":"ping","\ud800":1,"\ud800":2})"), pong("1"));
}

TEST_F(InitializedDispatcher, WithoutMemory) {
  CapturedOutput output;
  {
    const AllocationFailure failure(1);
    dispatch(R"({"jsonrpc":"2.0","id":1,"method":"ping"})", state_, tools_);
  }
  EXPECT_TRUE(AllocationFailure::happened());
  EXPECT_EQ(output.take(), error_reply("null", "-32603", "server memory limit"));
  // Memory comes before the message is looked at, and the id was not used up.
  {
    const AllocationFailure failure(1);
    dispatch("no JSON", state_, tools_);
  }
  EXPECT_EQ(output.take(), error_reply("null", "-32603", "server memory limit"));
  EXPECT_EQ(send(request("1", "ping")), pong("1"));
}

// --- jsonrpc ----------------------------------------------------------------------------------

TEST_F(InitializedDispatcher, TheVersion) {
  const struct {
    std::string_view version;
    bool accepted;
  } rows[] = {
      {R"("2.0")", true},
      {"2.0", true},
      {R"("\u0032.0")", true},
      {R"("2\u002e0")", true},
      {R"("2.0\u0000")", true},
      {R"("2.0\u0000abc")", true},
      {R"("2.0\u0000abcd")", false},
      {R"("2.0 ")", false},
      {R"(" 2.0")", false},
      {R"("2")", false},
      {R"("2.1")", false},
      {R"("1.0")", false},
      {R"("")", false},
      {R"("2.00000")", false},
      {R"("2.000000")", false},
      {R"("\ud800")", false},
      {"2", false},
      {"2.00", false},
      {"20e-1", false},
      {"2.0e0", false},
      {"2.00000", false},
      {"2.000000", false},
      {"true", false},
      {"null", false},
      {"[]", false},
      {"{}", false},
      {R"(["2.0"])", false},
  };
  int id = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.version);
    const std::string text = std::to_string(++id);
    const std::string message =
        R"({"jsonrpc":)" + std::string(row.version) + R"(,"id":)" + text + R"(,"method":"ping"})";
    EXPECT_EQ(send(message), row.accepted ? pong(text) : bad_version(text));
  }
}

TEST_F(InitializedDispatcher, AMissingVersion) {
  EXPECT_EQ(send(R"({"id":1,"method":"ping"})"), bad_version("1"));
  EXPECT_EQ(send(R"({"method":"ping"})"), bad_version("null"));
  EXPECT_EQ(send("{}"), bad_version("null"));
  EXPECT_EQ(send(R"({"jsonrp\u0063":"2.0","id":1,"method":"ping"})"), bad_version("1"));
  EXPECT_EQ(send(R"({"JSONRPC":"2.0","id":1,"method":"ping"})"), bad_version("1"));
  EXPECT_EQ(send(R"({"params":{"jsonrpc":"2.0"},"id":1,"method":"ping"})"), bad_version("1"));
  EXPECT_EQ(send(R"({"method":"notifications/initialized"})"), bad_version("null"));
}

// --- method -----------------------------------------------------------------------------------

TEST_F(InitializedDispatcher, TheMethodMustBeAShortString) {
  const std::string m95(95, 'm');
  const std::string m96(96, 'm');
  const struct {
    std::string method;
    bool accepted;
  } rows[] = {
      {"\"" + m95 + "\"", true},
      {"\"" + m96 + "\"", false},
      {R"("")", true},
      {"1", false},
      {"null", false},
      {"true", false},
      {"{}", false},
      {R"(["ping"])", false},
      {R"("\ud800")", false},
      {"\"" + std::string(93, 'm') + R"(\u00e9")", true},
      {"\"" + std::string(94, 'm') + R"(\u00e9")", false},
      {R"("PING")", true},
      {R"("ping ")", true},
      {R"("tools/callx")", true},
  };
  int id = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.method);
    const std::string text = std::to_string(++id);
    const std::string message =
        R"({"jsonrpc":"2.0","id":)" + text + R"(,"method":)" + row.method + "}";
    EXPECT_EQ(send(message), row.accepted ? unknown_method(text) : no_method(text));
  }
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":"x"})"), no_method("\"x\""));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0"})"), no_method("null"));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","method":7})"), no_method("null"));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":"x","\u006dethod":"ping"})"), no_method("\"x\""));
}

TEST_F(InitializedDispatcher, TheMethodIsCompared) {
  EXPECT_EQ(send(request("1", R"(\u0070ing)")), pong("1"));
  EXPECT_EQ(send(request("2", R"(ping\u0000x)")), pong("2"));
  EXPECT_EQ(send(request("3", R"(tools\/call)")), bad_params("3"));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","method":"notifications\/initialized"})"), "");
}

// --- id ---------------------------------------------------------------------------------------

TEST_F(InitializedDispatcher, Ids) {
  const std::string n95(95, '7');
  const std::string n96(96, '7');
  const std::string x95 = "\"" + std::string(95, 'x') + "\"";
  const std::string x96 = "\"" + std::string(96, 'x') + "\"";
  const struct {
    std::string id;
    bool accepted;
    std::string echoed;
  } rows[] = {
      {"7", true, "7"},
      {"-1.50e+3", true, "-1.50e+3"},
      {"true", true, "true"},
      {"false", true, "false"},
      {R"("abc")", true, R"("abc")"},
      {R"("")", true, R"("")"},
      {R"("\u0041")", true, R"("A")"},
      {R"("with \"quotes\"")", true, R"("with \"quotes\"")"},
      {R"("TRUE")", true, R"("TRUE")"},
      {R"("NULL")", true, R"("NULL")"},
      {n95, true, n95},
      {n96, false, n96},
      {x95, true, x95},
      {x96, false, "null"},
      {"null", false, "null"},
      {R"("null")", false, R"("null")"},
      {R"("\u006eull")", false, R"("null")"},
      {R"("null\u0000x")", false, R"("null")"},
      {"{}", false, "{}"},
      {R"({"a": [1]})", false, R"({"a": [1]})"},
      {"[]", false, "[]"},
      {R"([ "x" ])", false, R"([ "x" ])"},
      {R"("\ud800")", false, "null"},
  };
  std::uint32_t used = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.id);
    EXPECT_EQ(send(request(row.id, "ping")), row.accepted ? pong(row.echoed) : bad_id(row.echoed));
    used += row.accepted ? 1 : 0;
    EXPECT_EQ(state_.request_ids.count(), used);
  }
}

TEST_F(InitializedDispatcher, IdsAreComparedAsTexts) {
  EXPECT_EQ(send(request("1", "ping")), pong("1"));
  EXPECT_EQ(send(request("1", "ping")), bad_id("1"));
  EXPECT_EQ(send(request(R"("1")", "ping")), bad_id(R"("1")"));
  EXPECT_EQ(send(request(R"("\u0031")", "ping")), bad_id(R"("1")"));
  EXPECT_EQ(send(request("1.0", "ping")), pong("1.0"));
  EXPECT_EQ(send(request("1e0", "ping")), pong("1e0"));
  EXPECT_EQ(send(request("true", "ping")), pong("true"));
  EXPECT_EQ(send(request(R"("true")", "ping")), bad_id(R"("true")"));
  EXPECT_EQ(send(request(R"("a")", "ping")), pong(R"("a")"));
  EXPECT_EQ(send(request(R"("A")", "ping")), pong(R"("A")"));
  EXPECT_EQ(send(request(R"("a\u0000b")", "ping")), bad_id(R"("a")"));
}

TEST_F(Dispatcher, TheTwoHundredAndFiftySeventhId) {
  EXPECT_EQ(send(request("\"first\"", "initialize")), welcome("\"first\""));
  for (int i = 1; i < 256; ++i) {
    ASSERT_EQ(send(request(std::to_string(i), "ping")), pong(std::to_string(i)));
  }
  EXPECT_EQ(send(request("256", "ping")), bad_id("256"));
  EXPECT_EQ(send(request("1", "ping")), bad_id("1"));
  EXPECT_EQ(send(request("\"x\"", "tools/list")), bad_id("\"x\""));
  EXPECT_EQ(send(request("\"x\"", "notifications/initialized")), bad_id("\"x\""));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"), "");
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":null})"), no_method("null"));
}

TEST_F(Dispatcher, WhichRefusalsUseAnIdUp) {
  const struct {
    std::string message, reply;
    bool used_up;
  } rows[] = {
      {R"({"jsonrpc":"1.0","id":ID,"method":"ping"})", bad_version("ID"), false},
      {R"({"jsonrpc":"2.0","id":ID})", no_method("ID"), false},
      {R"({"jsonrpc":"2.0","id":ID,"id":ID,"method":"ping"})", bad_message(), false},
      {R"({"jsonrpc":"2.0","id":ID,"method":"ping"})", not_yet("ID"), true},
      {R"({"jsonrpc":"2.0","id":ID,"method":"tools/list"})", not_yet("ID"), true},
      {R"({"jsonrpc":"2.0","id":ID,"method":"tools/call"})", not_yet("ID"), true},
      {R"({"jsonrpc":"2.0","id":ID,"method":"no such method"})", not_yet("ID"), true},
      {R"({"jsonrpc":"2.0","id":ID,"method":"notifications/initialized"})",
       notification_with_id("ID"), true},
      {R"({"jsonrpc":"2.0","id":ID,"method":"notifications/cancelled"})",
       notification_with_id("ID"), true},
  };
  int number = 100;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message);
    const std::string id = std::to_string(++number);
    const auto with_id = [&id](std::string text) {
      for (std::size_t at = text.find("ID"); at != std::string::npos; at = text.find("ID")) {
        text.replace(at, 2, id);
      }
      return text;
    };
    EXPECT_EQ(send(with_id(row.message)), with_id(row.reply));
    EXPECT_EQ(send(request(id, "ping")), row.used_up ? bad_id(id) : not_yet(id));
  }
  state_.Initialized = true;
  EXPECT_EQ(send(request("\"m\"", "no such method")), unknown_method("\"m\""));
  EXPECT_EQ(send(request("\"m\"", "ping")), bad_id("\"m\""));
}

// --- notifications ----------------------------------------------------------------------------

TEST_F(Dispatcher, NotificationsAreNeverAnswered) {
  for (const bool initialized : {false, true}) {
    state_.Initialized = initialized;
    for (const std::string_view method :
         {"notifications/initialized", "notifications/cancelled", "notifications/progress",
          "initialize", "ping", "tools/list", "tools/call", "no such method", ""}) {
      SCOPED_TRACE(method);
      EXPECT_EQ(send(R"({"jsonrpc":"2.0","method":")" + std::string(method) + "\"}"), "");
      EXPECT_EQ(send(R"({"jsonrpc":"2.0","method":")" + std::string(method) +
                     R"(","params":{"requestId":1}})"),
                "");
    }
    EXPECT_EQ(state_.Initialized, initialized);
  }
  EXPECT_EQ(state_.request_ids.count(), 0U);
}

TEST_F(InitializedDispatcher, AnEscapedIdKeyIsNoId) {
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","\u0069d":1,"method":"ping"})"), "");
}

TEST_F(Dispatcher, NotificationsWithAnId) {
  EXPECT_EQ(send(request("1", "notifications/initialized")), notification_with_id("1"));
  EXPECT_EQ(send(request("1", "notifications/cancelled")), bad_id("1"));
  EXPECT_EQ(send(request("\"c\"", "notifications/cancelled")), notification_with_id("\"c\""));
  EXPECT_EQ(send(request("null", "notifications/initialized")), bad_id("null"));
  EXPECT_EQ(send(request("2", "notifications/progress")), not_yet("2"));
  EXPECT_FALSE(state_.Initialized);
}

// --- methods ----------------------------------------------------------------------------------

TEST_F(Dispatcher, TheHandshake) {
  EXPECT_EQ(send(request("1", "ping")), not_yet("1"));
  EXPECT_EQ(send(request("2", "nonsense")), not_yet("2"));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":"i","method":"initialize","params":{"protocolVersion":)"
                 R"("1999-01-01","capabilities":{"x":1},"clientInfo":7}})"),
            welcome("\"i\""));
  EXPECT_TRUE(state_.Initialized);
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"), "");
  EXPECT_EQ(send(request("3", "ping")), pong("3"));
  EXPECT_EQ(send(request("\"i\"", "initialize")), bad_id("\"i\""));
  EXPECT_EQ(send(request("4", "initialize")), already("4"));
  EXPECT_EQ(send(request("5", "nonsense")), unknown_method("5"));
}

TEST_F(Dispatcher, InitializeDoesNotReadItsParams) {
  for (const std::string_view params : {"null", "[]", "7", "{}", R"({"protocolVersion":[]})"}) {
    SCOPED_TRACE(params);
    state_.Initialized = false;
    const std::string id = std::to_string(state_.request_ids.count());
    EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"initialize","params":)" +
                   std::string(params) + "}"),
              welcome(id));
  }
}

TEST_F(InitializedDispatcher, ToolsList) {
  policy_.valid = false;
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":1,"method":"tools/list","params":{"cursor":"x"}})"),
            "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{\"tools\":[]}}\n");
  policy_.valid = true;
  const std::string reply = send(request("2", "tools/list"));
  EXPECT_TRUE(reply.starts_with(
      R"({"jsonrpc":"2.0","id":2,"result":{"tools":[{"name":"kova_list_databases",)"))
      << reply;
}

TEST_F(InitializedDispatcher, ToolsCallGetsTheParams) {
  EXPECT_EQ(send(request("1", "tools/call")), bad_params("1"));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":[]})"), bad_params("2"));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"none"}})"),
            error_reply("3", "-32602", "unknown Vantreo tool"));
  EXPECT_EQ(send(R"({"jsonrpc":"2.0","id":4,"method":"tools/call","param\u0073":{"name":"none"}})"),
            bad_params("4"));
}

// --- the order of the checks ------------------------------------------------------------------

TEST_F(Dispatcher, DoublyBadMessages) {
  EXPECT_EQ(send(request("\"used\"", "ping")), not_yet("\"used\""));
  const struct {
    std::string_view message;
    std::string reply;
  } rows[] = {
      {R"({"jsonrpc":"1.0","id":1,"id":2})", bad_message()},
      {R"({"jsonrpc":"1.0","id":1})", bad_version("1")},
      {R"({"jsonrpc":"1.0","id":null,"method":7})", bad_version("null")},
      {R"({"jsonrpc":"1.0","id":[1]})", bad_version("[1]")},
      {R"({"jsonrpc":"2.0","id":null})", no_method("null")},
      {R"({"jsonrpc":"2.0","id":{"a":1},"method":7})", no_method(R"({"a":1})")},
      {R"({"jsonrpc":"2.0","id":"used"})", no_method("\"used\"")},
      {R"({"jsonrpc":"2.0","id":"used","method":"notifications/initialized"})", bad_id("\"used\"")},
      {R"({"jsonrpc":"2.0","id":"used","method":"ping"})", bad_id("\"used\"")},
      {R"({"jsonrpc":"2.0","id":"used","method":"initialize"})", bad_id("\"used\"")},
      {R"({"jsonrpc":"2.0","id":"used","method":"nonsense"})", bad_id("\"used\"")},
      {R"({"jsonrpc":"2.0","id":"n","method":"notifications/cancelled"})",
       notification_with_id("\"n\"")},
      {R"({"jsonrpc":"2.0","id":"m","method":"nonsense"})", not_yet("\"m\"")},
      {R"({"jsonrpc":"2.0","id":"t","method":"tools/call","params":[]})", not_yet("\"t\"")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message);
    EXPECT_EQ(send(row.message), row.reply);
  }
}

}  // namespace
}  // namespace kova
