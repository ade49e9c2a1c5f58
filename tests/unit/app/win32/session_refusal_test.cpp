// A session of the HTTP listener whose process the system refuses.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "app/modes.h"
#include "platform/console.h"
#include "platform/large_block.h"
#include "support/captured_output.h"
#include "support/environment.h"
#include "support/running_listener.h"
#include "support/win32/start_refusal.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::RunningListener;
using testing::ScopedEnvironment;
using testing::StartRefusal;
using testing::Stream;

constexpr char kRefusedSession[] = "MCP_TRACE event=session_job_refused\n";

/// The mode --http, as the executable runs it.
void serve(const char* port) {
  LargeBlock line_buffer(1);
  ProtocolState protocol;
  McpPolicy policy{};
  AuditContext audit{};
  DbSession session;
  ToolContext tools{policy, audit, session};
  static_cast<void>(http_mode(
      {.line_buffer = line_buffer, .protocol = protocol, .tools = tools, .operand = port}));
}

class HttpSessionRefusal : public ::testing::Test {
 protected:
  static RunningListener& listener() {
    static RunningListener& running = *new RunningListener(serve);
    return running;
  }

  /// What an initialize writes to standard error; there is no session.
  static std::string trace_of_an_initialize() {
    const ScopedEnvironment token("KOVA_MCP_HTTP_BEARER_TOKEN", std::string(32, 't'));
    const ScopedEnvironment hosts("KOVA_MCP_HTTP_ALLOWED_HOSTS", "here");
    const ScopedEnvironment plain("KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK", "1");
    const std::string body = R"({"jsonrpc":"2.0","id":1,"method":"initialize"})";
    const std::string request =
        "POST /mcp HTTP/1.1\r\nHost: here\r\nAuthorization: Bearer " + std::string(32, 't') +
        "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    RunningListener& running = listener();
    CapturedOutput error(Stream::kError);
    const std::string response = running.response_to(request);
    EXPECT_TRUE(response.starts_with("HTTP/1.1 400 Bad Request\r\n")) << response;
    EXPECT_TRUE(response.ends_with(R"({"error":"valid MCP session required"})")) << response;
    std::string text = error.take();
    std::erase(text, '\r');
    return text;
  }
};

TEST_F(HttpSessionRefusal, ByTheListenersJobIsTraced) {
  const ScopedEnvironment debug("KOVA_MCP_DEBUG", "1");
  const StartRefusal refusal(ERROR_ACCESS_DENIED, true);
  EXPECT_EQ(trace_of_an_initialize(), kRefusedSession);
  EXPECT_EQ(trace_of_an_initialize(), kRefusedSession);
}

TEST_F(HttpSessionRefusal, OfAnotherKindIsNotTraced) {
  const ScopedEnvironment debug("KOVA_MCP_DEBUG", "1");
  const StartRefusal refusal(ERROR_ACCESS_DENIED, false);
  EXPECT_EQ(trace_of_an_initialize(), "");
}

TEST_F(HttpSessionRefusal, IsNotTracedUnlessAskedFor) {
  const ScopedEnvironment debug("KOVA_MCP_DEBUG");
  const StartRefusal refusal(ERROR_ACCESS_DENIED, true);
  EXPECT_EQ(trace_of_an_initialize(), "");
}

}  // namespace
}  // namespace kova
