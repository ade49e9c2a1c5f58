// The longest message goes to a worker through a pipe that cannot be enlarged.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "app/tool_worker.h"
#include "support/captured_output.h"
#include "support/child_modes.h"
#include "support/environment.h"
#include "support/posix/system_call_failure.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::ScopedEnvironment;
using testing::SystemCall;
using testing::SystemCallFailure;

TEST(RunToolJobPosix, AnswersTheLongestMessageThroughASmallPipe) {
  const ScopedEnvironment worker(testing::kWorkerMode, testing::kChildEcho);
  const std::string message = std::string(524288, 'a') + std::string(524288, 'b');
  for (const bool refused : {false, true}) {
    const SystemCallFailure failure(SystemCall::kSetPipeSize, EPERM, 1,
                                    refused ? SystemCallFailure::kAll : 0);
    ToolState state;
    CapturedOutput output;
    run_tool_job(make_tool_job(state, message, "1"));
    EXPECT_TRUE(output.take() == message + "\n") << refused;
    EXPECT_EQ(SystemCallFailure::failed(), refused ? 1 : 0);
  }
}

}  // namespace
}  // namespace kova
