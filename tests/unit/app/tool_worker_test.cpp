#include "app/tool_worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "support/allocation_failure.h"
#include "support/captured_output.h"
#include "support/child_modes.h"
#include "support/environment.h"

namespace kova {
namespace {

using testing::AllocationFailure;
using testing::CapturedOutput;
using testing::ScopedEnvironment;

constexpr char kFailed[] =
    "{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32603,"
    "\"message\":\"isolated MCP tool worker failed\"}}\n";

std::string cancelled(const std::string& id) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + id +
         ",\"result\":{\"content\":[{\"type\":\"text\",\"text\":\"request cancelled\"}],"
         "\"structuredContent\":{\"cancelled\":true},\"isError\":true}}\n";
}

TEST(ToolJobTest, CopiesTheTexts) {
  ToolState state;
  for (const std::size_t length : {0U, 1U, 100U, 1048576U}) {
    std::string message(length, 'm');
    std::string id(99, 'i');
    ToolJob* const job = make_tool_job(state, message, id);
    ASSERT_NE(job, nullptr);
    message.assign(length, 'x');
    id.assign(99, 'x');
    EXPECT_EQ(job->state, &state);
    EXPECT_EQ(std::string(job->raw_id), std::string(99, 'i'));
    ASSERT_EQ(job->message_length, length);
    EXPECT_TRUE(std::string(job->message, length + 1) == std::string(length, 'm') + "\n");
    std::free(job);
  }
}

TEST(ToolJobTest, WithoutMemory) {
  ToolState state;
  const std::string message(1000, 'm');
  // One or two blocks, whatever the record takes: each may be missing.
  const unsigned long before = testing::allocation_count();
  std::free(make_tool_job(state, message, "1"));
  const unsigned long blocks = testing::allocation_count() - before;
  ASSERT_GE(blocks, 1U);
  for (unsigned long nth = 1; nth <= blocks; ++nth) {
    const AllocationFailure failure(static_cast<int>(nth));
    EXPECT_EQ(make_tool_job(state, message, "1"), nullptr);
  }
}

class RunToolJob : public ::testing::Test {
 protected:
  std::string run(const std::string& message, const std::string& raw_id) {
    state_.ToolActive = 1;
    ToolJob* const job = make_tool_job(state_, message, raw_id);
    CapturedOutput output;
    run_tool_job(job);
    EXPECT_EQ(state_.ToolActive, 0U);
    EXPECT_EQ(state_.WorkerProcess, nullptr);
    return output.take();
  }

  ToolState state_;
  ScopedEnvironment mode_{testing::kWorkerMode};
  ScopedEnvironment no_trace_{"KOVA_MCP_DEBUG"};
};

TEST_F(RunToolJob, PassesTheMessageAndTheReply) {
  EXPECT_EQ(run("a message", "1"), "a message\n");
  EXPECT_EQ(run(std::string("with \0 and \r", 12), "1"), std::string("with \0 and \r\n", 13));
}

TEST_F(RunToolJob, AddsAMissingLineFeed) {
  mode_.set(testing::kWorkerNoLineFeed);
  EXPECT_EQ(run("a message", "1"), "a message\n");
}

TEST_F(RunToolJob, NoReplyIsAFailure) {
  mode_.set(testing::kWorkerSilent);
  EXPECT_EQ(run("a message", "1"), kFailed);
}

TEST_F(RunToolJob, AFailingChildIsAFailureWhateverItWrote) {
  mode_.set(testing::kChildExit7);
  EXPECT_EQ(run("a message", "1"), kFailed);
  mode_.set(testing::kWorkerReplyThenFail);
  EXPECT_EQ(run("a message", "1"), kFailed);
  mode_.set(testing::kChildCrash);
  EXPECT_EQ(run("a message", "\"id\""), kFailed);
}

TEST_F(RunToolJob, AReplyBeyondTheLimitIsCut) {
  mode_.set(testing::kChildLong);
  const std::string reply = run("a message", "1");
  EXPECT_EQ(reply.size(), 1048577U + 1U);
  EXPECT_EQ(reply.back(), '\n');
  EXPECT_EQ(reply.find_first_not_of('x'), reply.size() - 1);
}

TEST_F(RunToolJob, TheLongestReplies) {
  // The child replies with its message and a line feed, so the sum is at the limit and around it.
  for (const std::size_t length : {1048575U, 1048576U, 1048577U}) {
    const std::string message(length, 'm');
    EXPECT_TRUE(run(message, "1") == message + "\n") << length;
  }
}

TEST_F(RunToolJob, WithoutMemoryForTheReply) {
  state_.ToolActive = 1;
  ToolJob* const job = make_tool_job(state_, "a message", "1");
  CapturedOutput output;
  {
    const AllocationFailure failure(1);
    run_tool_job(job);
    EXPECT_TRUE(AllocationFailure::happened());
  }
  EXPECT_EQ(output.take(), kFailed);
  EXPECT_EQ(state_.ToolActive, 0U);
}

// The cancel came before the child was there.
TEST_F(RunToolJob, ACancelledCallIsAnsweredWithItsRawId) {
  mode_.set(testing::kChildHang);
  state_.CancelRequested = 1;
  for (const std::string& id : {std::string("7"), std::string(R"("a\u0041\n")"),
                                std::string("\"\""), std::string("null"), std::string(99, '1')}) {
    EXPECT_EQ(run("a message", id), cancelled(id));
  }
  EXPECT_EQ(run("a message", ""), cancelled("null"));
}

// The cancel comes while the child starts: the reading thread and the thread of the calls may both
// find that they have to end it.
TEST_F(RunToolJob, ACancelWhileTheChildStarts) {
  mode_.set(testing::kChildHang);
  for (int round = 0; round < 10; ++round) {
    state_.CancelRequested = 0;
    std::atomic<bool> replied{false};
    std::thread reader([this, &replied] {
      state_.CancelRequested = 1;
      for (bool ended = false; !ended && !replied;) {
        yield_thread();
        const SpinGuard guard(state_.worker_process_lock);
        ended = state_.WorkerProcess != nullptr;
        if (ended) state_.WorkerProcess->terminate(kCancelledExitCode);
      }
    });
    EXPECT_EQ(run("a message", "1"), cancelled("1"));
    replied = true;
    reader.join();
  }
}

TEST_F(RunToolJob, WhatACancelledChildWroteIsDropped) {
  state_.CancelRequested = 1;
  mode_.set(testing::kWorkerReplyThenHang);
  EXPECT_EQ(run("a message", "1"), cancelled("1"));
  mode_.set(testing::kChildEcho);
  EXPECT_EQ(run("a message", "1"), cancelled("1"));
}

TEST_F(RunToolJob, TracesItsStartAndItsEnd) {
  no_trace_.set("1");
  CapturedOutput error(testing::Stream::kError);
  const auto lines = [&error] {
    std::string text = error.take();
    std::erase(text, '\r');
    return text;
  };
  TextOut(state_.ActiveRequestId).copy_cut("id-1");
  EXPECT_EQ(run("a message", "\"id-1\""), "a message\n");
  EXPECT_EQ(lines(),
            "MCP_TRACE event=tool_worker_start request_id=id-1 isolation=process\n"
            "MCP_TRACE event=tool_worker_finish request_id=id-1 cancelled=0 exit=0\n");
  mode_.set(testing::kChildExit7);
  EXPECT_EQ(run("a message", "\"id-1\""), kFailed);
  EXPECT_EQ(lines(),
            "MCP_TRACE event=tool_worker_start request_id=id-1 isolation=process\n"
            "MCP_TRACE event=tool_worker_finish request_id=id-1 cancelled=0 exit=7\n");
  mode_.set(testing::kChildHang);
  state_.CancelRequested = 1;
  EXPECT_EQ(run("a message", "\"id-1\""), cancelled("\"id-1\""));
  EXPECT_EQ(lines(),
            "MCP_TRACE event=tool_worker_start request_id=id-1 isolation=process\n"
            "MCP_TRACE event=tool_worker_finish request_id=id-1 cancelled=1 exit=1223\n");
}

}  // namespace
}  // namespace kova
