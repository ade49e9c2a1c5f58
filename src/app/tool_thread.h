// The thread that runs the tool calls of a stdio server, one after the other.
#pragma once

#include <cstdint>

#include "app/tool_worker.h"
#include "platform/thread.h"

namespace kova {

/// Runs jobs on a thread of its own, which the first one starts and which is kept: where calls
/// follow each other closely, a new thread for each would cost 5 to 10 % of a call that the policy
/// answers. Used by one thread.
class ToolThread {
 public:
  explicit ToolThread(ToolState& state) : state_(state) {}
  /// Waits for the end of the job that runs.
  ~ToolThread();
  ToolThread(const ToolThread&) = delete;
  ToolThread& operator=(const ToolThread&) = delete;

  /// Hands the job over to `run_tool_job`. ToolActive is already set for it, and no other call is
  /// active. False, and the job is still the caller's, when no thread can be started.
  [[nodiscard]] bool run(ToolJob* job);
  /// Waits at most so long for the end of the active call; whether none is active then.
  [[nodiscard]] bool idle_within(std::uint32_t milliseconds);

 private:
  static void* serve(void* self);
  [[nodiscard]] ToolJob* next_job();

  ToolState& state_;
  Mutex mutex_;
  Condition changed_;
  ToolJob* job_ = nullptr;
  bool ending_ = false;
  Thread thread_;
};

}  // namespace kova
