// One tool call of the stdio server, in a child process: what the thread of the calls does.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "app/prescan.h"
#include "platform/process.h"
#include "platform/thread.h"

namespace kova {

/// What the reading thread and the thread of the calls share. At most one call is active.
struct ToolState {
  std::atomic<std::uint32_t> ToolActive{0};
  std::atomic<std::uint32_t> CancelRequested{0};
  /// Guards WorkerProcess: whoever uses the process holds it, so that a process that has been
  /// collected is never signalled.
  SpinLock worker_process_lock;
  ChildProcess* WorkerProcess = nullptr;
  /// Written by the reading thread while no call is active.
  char ActiveRequestId[kIdCapacity] = {};
};

/// One call on its way to a child; freed with `free` by the thread of the calls.
struct ToolJob {
  ToolState* state;
  char raw_id[kRawIdCapacity];
  std::uint32_t message_length;
  char message[1];  ///< message_length bytes and a line feed
};

/// A job with copies of the texts, or null without memory.
[[nodiscard]] ToolJob* make_tool_job(ToolState& state, std::string_view message,
                                     std::string_view raw_id);

/// Runs one call: starts the child, writes the message to it, writes its reply line, the
/// cancelled result or an error to standard output, frees the job and clears ToolActive last.
void run_tool_job(ToolJob* job);

}  // namespace kova
