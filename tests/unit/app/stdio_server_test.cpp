#include "app/stdio_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/console.h"
#include "policy/predicates.h"
#include "support/allocation_failure.h"
#include "support/captured_output.h"
#include "support/child_modes.h"
#include "support/environment.h"
#include "support/thread_failure.h"
#include "support/wait_watch.h"

namespace kova {
namespace {

using testing::AllocationFailure;
using testing::CapturedOutput;
using testing::ScopedEnvironment;
using testing::Stream;
using testing::ThreadFailure;
using namespace std::string_literals;

// One step of a client's session: it writes bytes, waits until the server has written a text, or
// changes something around the server.
struct Step {
  std::string bytes;
  std::string until_output;
  std::string until_trace;
  std::function<void()> change;
};

Step send(std::string bytes) {
  return {std::move(bytes), "", "", {}};
}
Step await_output(std::string text) {
  return {"", std::move(text), "", {}};
}
Step await_trace(std::string text) {
  return {"", "", std::move(text), {}};
}
Step then(std::function<void()> change) {
  return {"", "", "", std::move(change)};
}

// The running session; a source is a plain function, so its state is here.
struct Session {
  std::vector<Step> steps;
  std::size_t next = 0;
  CapturedOutput* output = nullptr;
  CapturedOutput* error = nullptr;
  std::string written;
  std::string traced;
} session;

void drain() {
  session.written += session.output->take();
  session.traced += session.error->take();
}

void await(const std::string& seen, const std::string& text) {
  using std::chrono::steady_clock;
  // Only a failure takes so long.
  const auto until = steady_clock::now() + std::chrono::minutes(5);
  while (seen.find(text) == std::string::npos && steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    drain();
  }
  ASSERT_NE(seen.find(text), std::string::npos) << text << " is not in " << seen;
}

std::size_t read_session(char* data, std::size_t size) {
  while (session.next < session.steps.size()) {
    Step& step = session.steps[session.next];
    if (!step.until_output.empty()) {
      await(session.written, step.until_output);
    } else if (!step.until_trace.empty()) {
      await(session.traced, step.until_trace);
    } else if (step.change) {
      step.change();
    }
    if (step.bytes.empty()) {
      ++session.next;
      continue;
    }
    const std::size_t got = std::min(size, step.bytes.size());
    std::memcpy(data, step.bytes.data(), got);
    step.bytes.erase(0, got);
    if (step.bytes.empty()) ++session.next;
    return got;
  }
  return 0;
}

std::string error_reply(std::string_view id, std::string_view code, std::string_view message) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) +
         ",\"error\":{\"code\":" + std::string(code) + ",\"message\":\"" + std::string(message) +
         "\"}}\n";
}
std::string oversized() {
  return error_reply("null", "-32700", "MCP message exceeds 1048576 bytes");
}
std::string bad_message() {
  return error_reply("null", "-32700", "invalid, duplicate, deep, or oversized JSON message");
}
std::string busy(std::string_view id) {
  return error_reply(id, "-32000", "another MCP database tool is still active");
}
std::string pong(std::string_view id) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) + ",\"result\":{}}\n";
}
std::string cancelled_reply(std::string_view id) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) +
         ",\"result\":{\"content\":[{\"type\":\"text\",\"text\":\"request cancelled\"}],"
         "\"structuredContent\":{\"cancelled\":true},\"isError\":true}}\n";
}

std::string ping(std::string_view id) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":"ping"})";
}
std::string call(std::string_view id) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":"tools/call"})";
}
std::string cancel(std::string_view request_id) {
  return R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":)" +
         std::string(request_id) + "}}\n";
}

// A ping that is so many bytes long.
std::string padded_ping(std::string_view id, std::size_t size) {
  std::string text = ping(id);
  return text + std::string(size - text.size(), ' ');
}

class StdioServer : public ::testing::Test {
 protected:
  StdioServer() {
    prepare_standard_streams();
    policy_.valid = true;
    policy_.reads_enabled = true;
    state_.Initialized = true;
  }

  /// Everything that the server writes in a session of these steps.
  std::string serve(std::vector<Step> steps) {
    CapturedOutput output(Stream::kOutput);
    CapturedOutput error(Stream::kError);
    session = {std::move(steps), 0, &output, &error, "", ""};
    LineReader lines(buffer_.get(), read_session);
    run_stdio_server(lines, state_, tools_);
    drain();
    std::erase(session.traced, '\r');
    EXPECT_EQ(session.next, session.steps.size());
    return session.written;
  }

  std::string serve(std::string input) { return serve(std::vector<Step>{send(std::move(input))}); }

  std::unique_ptr<char[]> buffer_ = std::make_unique<char[]>(kLineBufferCapacity);
  McpPolicy policy_{};
  AuditContext audit_{};
  DbSession database_;
  ToolContext tools_{policy_, audit_, database_};
  ProtocolState state_;
  ScopedEnvironment mode_{testing::kWorkerMode};
  ScopedEnvironment debug_{"KOVA_MCP_DEBUG"};
  ScopedEnvironment no_audit_{"KOVA_MCP_AUDIT"};
};

// --- framing ----------------------------------------------------------------------------------

TEST_F(StdioServer, LinesAndTheirEnds) {
  const struct {
    std::string input, output;
  } rows[] = {
      {"", ""},
      {"\n", ""},
      {"\n\n\r\n\r\r\n", ""},
      {ping("1") + "\n", pong("1")},
      {ping("2") + "\r\n", pong("2")},
      {ping("3") + "\r\r\r\n", pong("3")},
      {ping("4"), pong("4")},
      {ping("5") + "\r", pong("5")},
      {"\n\n" + ping("6") + "\n\n" + ping("7") + "\r\n\n", pong("6") + pong("7")},
      {" " + ping("8") + "\t\n", pong("8")},
      {"no JSON\n" + ping("9") + "\n", bad_message() + pong("9")},
      {" \n", bad_message()},
      {ping("10") + ping("11") + "\n", bad_message()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.input));
    EXPECT_EQ(serve(row.input), row.output);
  }
}

TEST_F(StdioServer, MessagesAtTheSizeLimit) {
  const std::string next = ping("\"next\"") + "\n";
  const auto with_next = [&](std::string input) {
    state_.request_ids = {};
    return serve(input + next);
  };
  EXPECT_EQ(with_next(padded_ping("1", 1048576) + "\n"), pong("1") + pong("\"next\""));
  EXPECT_EQ(with_next(padded_ping("2", 1048577) + "\n"), oversized() + pong("\"next\""));
  EXPECT_EQ(with_next(padded_ping("3", 1048578) + "\n"), oversized() + pong("\"next\""));
  EXPECT_EQ(with_next(padded_ping("4", 1048575) + "\r\n"), pong("4") + pong("\"next\""));
  EXPECT_EQ(with_next(padded_ping("5", 1048576) + "\r\n"), oversized() + pong("\"next\""));
  EXPECT_EQ(with_next(padded_ping("6", 5000000) + "\n"), oversized() + pong("\"next\""));
}

TEST_F(StdioServer, TheLastPieceAtTheSizeLimit) {
  EXPECT_EQ(serve(padded_ping("1", 1048576)), pong("1"));
  EXPECT_EQ(serve(padded_ping("2", 1048577)), oversized());
  EXPECT_EQ(serve(padded_ping("3", 1048578)), oversized());
  EXPECT_EQ(serve(padded_ping("4", 3000000)), oversized());
}

TEST_F(StdioServer, TheByteOrderMark) {
  const std::string mark = "\xef\xbb\xbf";
  const struct {
    std::string input, output;
  } rows[] = {
      {mark + ping("1") + "\n", pong("1")},
      {mark + ping("2"), pong("2")},
      {mark + mark + ping("3") + "\n", bad_message()},
      {ping("4") + "\n" + mark + ping("5") + "\n", pong("4") + bad_message()},
      {mark + "\n" + mark + ping("6") + "\n", bad_message()},
      {mark + "\n" + ping("7") + "\n", pong("7")},
      {mark, ""},
      {"\n" + mark + ping("8") + "\n", bad_message()},
      {"\r\n" + mark + ping("9") + "\n", bad_message()},
      {"\0\n"s + mark + ping("10") + "\n", pong("10")},
      {mark.substr(0, 2) + ping("11") + "\n", bad_message()},
      {mark + padded_ping("12", 1048573) + "\n", pong("12")},
      {mark + padded_ping("13", 1048574) + "\n", oversized()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.input.substr(0, 80)));
    EXPECT_EQ(serve(row.input), row.output);
  }
}

TEST_F(StdioServer, NulBytes) {
  const struct {
    std::string input, output;
  } rows[] = {
      {"\0\n"s + ping("1") + "\n", pong("1")},
      {"\0"s + ping("2") + "\n" + ping("3") + "\n", pong("3")},
      {"x\0\n"s + ping("4") + "\n" + ping("5") + "\n", oversized() + pong("5")},
      {ping("6") + "\0\n"s + ping("7") + "\n" + ping("8") + "\n", oversized() + pong("8")},
      {ping("9") + "\0"s, pong("9")},
      {ping("10") + "\0rest of the piece"s, pong("10")},
      {ping("11") + "\0\n"s, oversized()},
      {"\0"s, ""},
      {"\0\0\0"s, ""},
      {ping("12") + "\r\0"s, pong("12")},
      {ping("13") + "\n\0"s, pong("13")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.input));
    EXPECT_EQ(serve(row.input), row.output);
  }
}

TEST_F(StdioServer, ACancelWhileIdleIsIgnored) {
  EXPECT_EQ(serve(cancel("1") + ping("1") + "\n"), pong("1"));
  EXPECT_EQ(serve(R"({"jsonrpc":"2.0","id":2,"method":"notifications/cancelled",)"
                  R"("params":{"requestId":1}})"
                  "\n"),
            error_reply("2", "-32600", "notifications must not contain an id"));
}

// --- tool calls -------------------------------------------------------------------------------
// The child of these tests replies with the line it was given, unless kWorkerMode says otherwise.

TEST_F(StdioServer, ACallGoesToAChild) {
  state_.Initialized = false;
  EXPECT_EQ(serve(call("1") + "\r\n"), call("1") + "\n");
  // Its id is not used up, and bad envelopes are the child's business.
  EXPECT_EQ(serve(call("1") + "\n"), call("1") + "\n");
  for (const std::string& message :
       {R"({"id":[],"method":"tools\/call"})"s, R"({"id":null,"method":"tools/call"})"s,
        R"({"id":1,"id":2,"method":"tools/call"})"s}) {
    EXPECT_EQ(serve(message + "\n"), message + "\n");
  }
  EXPECT_EQ(state_.request_ids.count(), 0U);
}

TEST_F(StdioServer, ACallWithoutAnIdIsANotification) {
  EXPECT_EQ(serve(R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"kova_query"}})"
                  "\n"),
            "");
}

TEST_F(StdioServer, AnOverlongIdKeepsTheCallInThisProcess) {
  std::string escaped = "\"";
  for (int i = 0; i < 17; ++i) escaped += "\\u0041";
  escaped += "\"";
  const std::string decoded = "\"" + std::string(17, 'A') + "\"";
  state_.Initialized = false;
  EXPECT_EQ(serve(call(escaped) + "\n"),
            error_reply(decoded, "-32002", "server is not initialized"));
  state_.Initialized = true;
  EXPECT_EQ(serve(call(escaped) + "\n"),
            error_reply(decoded, "-32600", "request id is invalid or already used"));
  EXPECT_EQ(serve(call("\"" + escaped.substr(7)) + "\n"), call("\"" + escaped.substr(7)) + "\n");
}

TEST_F(StdioServer, CallsOneAfterTheOther) {
  std::vector<Step> steps;
  std::string wanted;
  for (int i = 0; i < 5; ++i) {
    steps.push_back(send(call(std::to_string(i)) + "\n"));
    steps.push_back(await_output(call(std::to_string(i)) + "\n"));
    wanted += call(std::to_string(i)) + "\n";
  }
  EXPECT_EQ(serve(std::move(steps)), wanted);
}

TEST_F(StdioServer, TheEndOfInputWaitsForTheCall) {
  EXPECT_EQ(serve(call("1")), call("1") + "\n");
}

TEST_F(StdioServer, WhileACallRunsEverythingElseIsRefused) {
  mode_.set(testing::kWorkerReplyThenHang);
  const std::string while_busy =
      ping("1") + "\n" + ping("\"\\u0041\"") + "\n" + call("\"second\"") + "\n" +
      R"({"jsonrpc":"2.0","id":[1, 2],"method":"initialize"})" + "\n" +
      R"({"jsonrpc":"2.0","id":null,"method":"tools/list"})" + "\n" +
      R"({"id":3,"id":4,"method":"x"})" + "\n" +
      // refused without a reply:
      R"({"jsonrpc":"2.0","method":"notifications/initialized"})" + "\n" +
      R"({"jsonrpc":"2.0","method":"tools/call"})" + "\n" + "no JSON\n" +
      R"({"jsonrpc":"2.0","id":5})" + "\n" + R"({"jsonrpc":"2.0","id":5,"method":7})" + "\n" +
      ping(std::string(100, '1')) + "\n" + cancel("\"other\"") + cancel("\"RUN\"") + cancel("7");
  const std::string output =
      serve({send(call("\"run\"") + "\n"), send(while_busy), await_output(busy("3")),
             send(cancel("\"run\"")), await_output("request cancelled"), send(ping("1") + "\n")});
  EXPECT_EQ(output, busy("1") + busy("\"\\u0041\"") + busy("\"second\"") + busy("[1, 2]") +
                        busy("null") + busy("3") + cancelled_reply("\"run\"") + pong("1"));
  EXPECT_EQ(state_.request_ids.count(), 1U);
}

TEST_F(StdioServer, AMessageWaitsFor50MsForTheCallsEnd) {
  mode_.set(testing::kChildHang);
  const testing::WaitWatch waits;
  std::uint32_t waited_ms = 0;
  EXPECT_EQ(serve({send(call("1") + "\n"), send(ping("2") + "\n"), await_output(busy("2")),
                   then([&] { waited_ms = testing::WaitWatch::longest_ms(); }), send(cancel("1"))}),
            busy("2") + cancelled_reply("1"));
  EXPECT_EQ(waited_ms, 50U);
}

TEST_F(StdioServer, FramingErrorsAreAnsweredWhileACallRuns) {
  mode_.set(testing::kChildHang);
  const std::string output =
      serve({send(call("1") + "\n"), send(padded_ping("2", 1048577) + "\n"), send("x\0\nlost\n"s),
             send("\xef\xbb\xbf" + ping("3") + "\n"), send(cancel("1"))});
  EXPECT_EQ(output, oversized() + oversized() + cancelled_reply("1"));
}

TEST_F(StdioServer, WhichCancelsMatch) {
  mode_.set(testing::kChildHang);
  const std::string x94(94, 'x');
  const struct {
    std::string id, request_id;
  } rows[] = {
      {"7", "7"},
      {"7", "\"7\""},
      {"\"7\"", "7"},
      {"true", "\"true\""},
      {"null", "null"},
      {"-1.50e+3", "-1.50e+3"},
      {"\"abc\"", "\"abc\""},
      {"\"abc\"", "\"\\u0061bc\""},
      {R"("a\u0041")", R"("a\\u0041")"},
      {R"("q\"q")", R"("q\\\"q")"},
      {"[1]", "[1]"},
      {"\"\"", "\"invalid\""},
      {"\"" + x94 + "\"", "\"" + x94 + "\""},
      {"\"" + x94 + "x\"", "\"invalid\""},
      {"\"" + x94 + "xxx\"", "\"invalid\""},
      {std::string(99, '9'), std::string(95, '9')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.id + " by " + row.request_id);
    EXPECT_EQ(serve({send(call(row.id) + "\n"), send(cancel(row.request_id))}),
              cancelled_reply(row.id));
  }
}

TEST_F(StdioServer, WhichCancelsDoNotMatch) {
  mode_.set(testing::kChildHang);
  const struct {
    std::string id, request_id;
  } rows[] = {
      {"7", "7.0"},
      {"7", "70"},
      {"\"abc\"", "\"ab\""},
      {"\"abc\"", "\"abcd\""},
      {"\"abc\"", "\"ABC\""},
      {R"("a\u0041")", "\"aA\""},
      {"\"\"", "\"\""},
      {"\"" + std::string(95, 'x') + "\"", "\"" + std::string(95, 'x') + "\""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.id + " by " + row.request_id);
    // The busy reply shows that the call outlived the cancel before it.
    const std::string known = row.id == "\"\"" || row.id.size() == 97 ? "\"invalid\""
                              : row.id == R"("a\u0041")"              ? R"("a\\u0041")"
                                                                      : row.id;
    EXPECT_EQ(serve({send(call(row.id) + "\n"), send(cancel(row.request_id)),
                     send(ping("\"still\"") + "\n"), await_output(busy("\"still\"")),
                     send(cancel(known))}),
              busy("\"still\"") + cancelled_reply(row.id));
  }
}

TEST_F(StdioServer, ACancelWithAnIdOfItsOwnMatchesAndGetsNoReply) {
  mode_.set(testing::kChildHang);
  EXPECT_EQ(serve({send(call("1") + "\n"),
                   send(R"({"jsonrpc":"2.0","id":2,"method":"notifications/cancelled",)"
                        R"("params":{"requestId":1}})"
                        "\n")}),
            cancelled_reply("1"));
  EXPECT_EQ(state_.request_ids.count(), 0U);
}

TEST_F(StdioServer, ANewCallForgetsTheCancelOfTheLastOne) {
  mode_.set(testing::kChildHang);
  EXPECT_EQ(serve({send(call("1") + "\n"), send(cancel("1")), await_output(cancelled_reply("1")),
                   then([this] { mode_.set(testing::kChildEcho); }), send(call("2") + "\n"),
                   await_output("tools/call"), send(call("1") + "\n")}),
            cancelled_reply("1") + call("2") + "\n" + call("1") + "\n");
}

// Neither has a child, and the server goes on.
TEST_F(StdioServer, WithoutMemoryForACall) {
  std::optional<AllocationFailure> failure;
  EXPECT_EQ(serve({then([&] { failure.emplace(1); }), send(call("1") + "\n"),
                   then([&] { failure.reset(); }), send(ping("2") + "\n")}),
            error_reply("null", "-32603", "server memory limit") + pong("2"));
  EXPECT_TRUE(AllocationFailure::happened());
}

TEST_F(StdioServer, WithoutAThreadForACall) {
  std::optional<ThreadFailure> failure;
  EXPECT_EQ(serve({then([&] { failure.emplace(); }), send(call("1") + "\n"),
                   then([&] { failure.reset(); }), send(ping("2") + "\n")}),
            error_reply("null", "-32603", "worker creation failed") + pong("2"));
}

TEST_F(StdioServer, AFailingChildDoesNotStopTheServer) {
  mode_.set(testing::kChildCrash);
  const std::string failed = error_reply("null", "-32603", "isolated MCP tool worker failed");
  EXPECT_EQ(serve({send(call("1") + "\n"), await_output(failed), send(ping("2") + "\n")}),
            failed + pong("2"));
}

TEST_F(StdioServer, TraceLines) {
  debug_.set("1");
  mode_.set(testing::kWorkerReplyThenHang);
  const std::string output =
      serve({send(call("\"t\\u0031\"") + "\n"), await_trace("event=tool_worker_start"),
             // The child is published by the time it has been given its line.
             send(ping("1") + "\n"), await_output(busy("1")), send(cancel(R"("t\\u0031")")),
             await_trace("event=tool_worker_finish")});
  EXPECT_EQ(output, busy("1") + cancelled_reply("\"t\\u0031\""));
  // The process may be published before or after the cancel looks for it.
  const std::string before =
      "MCP_TRACE event=tool_worker_start request_id=t\\u0031 isolation=process\n"
      "MCP_TRACE event=cancel_matched request_id=t\\u0031\n"
      "MCP_TRACE event=cancel_dispatched request_id=t\\u0031 isolated_process=";
  const std::string after =
      "\nMCP_TRACE event=tool_worker_finish request_id=t\\u0031 cancelled=1 exit=1223\n";
  EXPECT_TRUE(session.traced == before + "terminated" + after ||
              session.traced == before + "starting" + after)
      << session.traced;
}

TEST_F(StdioServer, NoTraceUnlessAskedFor) {
  debug_.set("0");
  EXPECT_EQ(serve(call("1") + "\n"), call("1") + "\n");
  EXPECT_EQ(session.traced, "");
}

}  // namespace
}  // namespace kova
