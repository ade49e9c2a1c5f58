#include "app/tool_thread.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/clock.h"
#include "support/captured_output.h"
#include "support/child_modes.h"
#include "support/environment.h"
#include "support/thread_failure.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::ScopedEnvironment;
using testing::ThreadFailure;

class RunsJobs : public ::testing::Test {
 protected:
  /// As the server hands a call over.
  [[nodiscard]] bool run(ToolThread& thread, const std::string& message) {
    ToolJob* const job = make_tool_job(state_, message, "1");
    state_.ToolActive = 1;
    if (thread.run(job)) return true;
    state_.ToolActive = 0;
    std::free(job);
    return false;
  }

  void cancel() {
    state_.CancelRequested = 1;
    const SpinGuard guard(state_.worker_process_lock);
    if (state_.WorkerProcess != nullptr) state_.WorkerProcess->terminate(kCancelledExitCode);
  }

  ToolState state_;
  ScopedEnvironment mode_{testing::kWorkerMode, testing::kChildEcho};
  ScopedEnvironment no_trace_{"KOVA_MCP_DEBUG"};
};

TEST_F(RunsJobs, OneAfterTheOther) {
  CapturedOutput output;
  ToolThread thread(state_);
  EXPECT_TRUE(thread.idle_within(0));
  for (const std::string message : {"one", "two", "three"}) {
    ASSERT_TRUE(run(thread, message));
    ASSERT_TRUE(thread.idle_within(600000));
    EXPECT_EQ(state_.ToolActive, 0U);
    EXPECT_EQ(output.take(), message + "\n");
  }
}

TEST_F(RunsJobs, OnTheThreadOfTheFirst) {
  CapturedOutput output;
  ToolThread thread(state_);
  ASSERT_TRUE(run(thread, "one"));
  ASSERT_TRUE(thread.idle_within(600000));
  const ThreadFailure no_other_thread;
  ASSERT_TRUE(run(thread, "two"));
  ASSERT_TRUE(thread.idle_within(600000));
  EXPECT_EQ(output.take(), "one\ntwo\n");
}

TEST_F(RunsJobs, NotWithoutAThread) {
  CapturedOutput output;
  ToolThread thread(state_);
  {
    const ThreadFailure no_thread;
    EXPECT_FALSE(run(thread, "one"));
    EXPECT_FALSE(run(thread, "two"));
  }
  EXPECT_TRUE(run(thread, "three"));
  ASSERT_TRUE(thread.idle_within(600000));
  EXPECT_EQ(output.take(), "three\n");
}

TEST_F(RunsJobs, AndTellsWhetherOneIsActive) {
  mode_.set(testing::kChildHang);
  CapturedOutput output;
  ToolThread thread(state_);
  ASSERT_TRUE(run(thread, "one"));
  EXPECT_FALSE(thread.idle_within(0));
  const std::uint64_t start = tick_ms();
  EXPECT_FALSE(thread.idle_within(60));
  EXPECT_GE(tick_ms() - start + 20, 60U);
  cancel();
  EXPECT_TRUE(thread.idle_within(600000));
  EXPECT_LT(tick_ms() - start, 600000U);
}

TEST_F(RunsJobs, UntilItsDestructionWhichWaits) {
  CapturedOutput output;
  {
    ToolThread thread(state_);
    ASSERT_TRUE(run(thread, "one"));
  }
  EXPECT_EQ(state_.ToolActive, 0U);
  EXPECT_EQ(output.take(), "one\n");
}

TEST_F(RunsJobs, NoneAtAll) {
  CapturedOutput output;
  { const ToolThread thread(state_); }
  EXPECT_EQ(output.take(), "");
}

}  // namespace
}  // namespace kova
