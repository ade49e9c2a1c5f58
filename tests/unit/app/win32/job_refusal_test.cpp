// A call whose child the system refuses.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "app/tool_worker.h"
#include "support/captured_output.h"
#include "support/environment.h"
#include "support/win32/start_refusal.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::ScopedEnvironment;
using testing::StartRefusal;
using testing::Stream;

constexpr char kStarts[] = "MCP_TRACE event=tool_worker_start request_id=id-1 isolation=process\n";
constexpr char kRefused[] = "MCP_TRACE event=tool_worker_job_refused request_id=id-1\n";
constexpr char kFinishes[] =
    "MCP_TRACE event=tool_worker_finish request_id=id-1 cancelled=0 exit=1\n";

/// What a call with the id "id-1" writes to standard error; its reply is that of a failed worker.
std::string trace_of_a_call() {
  ToolState state;
  TextOut(state.ActiveRequestId).copy_cut("id-1");
  ToolJob* const job = make_tool_job(state, "a message", "\"id-1\"");
  CapturedOutput output;
  CapturedOutput error(Stream::kError);
  run_tool_job(job);
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32603,"
            "\"message\":\"isolated MCP tool worker failed\"}}\n");
  std::string text = error.take();
  std::erase(text, '\r');
  return text;
}

TEST(RunToolJobWindows, TracesThatTheServersJobRefusedTheWorker) {
  const ScopedEnvironment debug("KOVA_MCP_DEBUG", "1");
  const StartRefusal refusal(ERROR_ACCESS_DENIED, true);
  EXPECT_EQ(trace_of_a_call(), std::string(kStarts) + kRefused + kFinishes);
}

TEST(RunToolJobWindows, TracesNoRefusalOfAnotherKind) {
  const ScopedEnvironment debug("KOVA_MCP_DEBUG", "1");
  const StartRefusal refusal(ERROR_ACCESS_DENIED, false);
  EXPECT_EQ(trace_of_a_call(), std::string(kStarts) + kFinishes);
}

TEST(RunToolJobWindows, TracesNoRefusalUnlessAskedFor) {
  const ScopedEnvironment debug("KOVA_MCP_DEBUG");
  const StartRefusal refusal(ERROR_ACCESS_DENIED, true);
  EXPECT_EQ(trace_of_a_call(), "");
}

}  // namespace
}  // namespace kova
