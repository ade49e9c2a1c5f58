#include "app/tool_worker.h"

#include <cstdlib>
#include <cstring>

#include "app/line_reader.h"
#include "app/trace.h"
#include "base/drain.h"
#include "base/heap_array.h"
#include "base/text.h"
#include "json/output_lock.h"
#include "json/reply.h"
#include "platform/console.h"

namespace kova {

namespace {

/// Bytes of a child's output that are passed on; the rest is dropped.
constexpr std::size_t kReplyLimit = kMessageLimit + 1;
/// The exit code that stands for a child which never ran.
constexpr std::uint32_t kNeverRan = 1;

/// The child's reply line, with room for a line feed; there may be no memory for it.
struct Reply {
  HeapArray<char> bytes{kReplyLimit + 1};
  std::size_t length = 0;
};

/// Lets a cancel reach the child. A cancel that came before found none, so it is carried out here.
void publish(ToolState& state, ChildProcess& child) {
  const SpinGuard guard(state.worker_process_lock);
  state.WorkerProcess = &child;
  if (state.CancelRequested.load() != 0) child.terminate(kCancelledExitCode);
}

void withdraw(ToolState& state) {
  const SpinGuard guard(state.worker_process_lock);
  state.WorkerProcess = nullptr;
}

/// Reads the whole output, also what does not fit the reply: a child that writes to a full pipe
/// would not end.
void read_reply(ChildProcess& child, Reply& reply) {
  while (reply.bytes && reply.length < kReplyLimit) {
    const std::size_t got =
        child.read_output(reply.bytes.data() + reply.length, kReplyLimit - reply.length);
    if (got == 0) return;
    reply.length += got;
  }
  drain([&](char* rest, std::size_t size) { return child.read_output(rest, size); });
}

/// Runs the call in a child process and returns its exit code.
std::uint32_t run_child(const ToolJob& job, ToolState& state, Reply& reply) {
  ChildProcess child;
  if (!child.start("--tool-worker")) {
    if (child.job_refused()) {
      trace("MCP_TRACE event=tool_worker_job_refused request_id=%s\n", state.ActiveRequestId);
    }
    return kNeverRan;
  }
  publish(state, child);
  child.write_input({job.message, job.message_length + 1U});
  child.close_input();
  read_reply(child, reply);
  child.wait();
  withdraw(state);
  return child.collect();
}

void pass_on(Reply& reply) {
  char* const line = reply.bytes.data();
  if (line[reply.length - 1] != '\n') line[reply.length++] = '\n';
  const SpinGuard guard(OutputLock);
  write_stdout({line, reply.length});
}

}  // namespace

ToolJob* make_tool_job(ToolState& state, std::string_view message, std::string_view raw_id) {
  auto* job = static_cast<ToolJob*>(std::malloc(sizeof(ToolJob) + message.size()));
  if (job == nullptr) return nullptr;
  job->state = &state;
  job->message_length = static_cast<std::uint32_t>(message.size());
  TextOut(job->raw_id).copy_cut(raw_id);
  std::memcpy(job->message, message.data(), message.size());
  job->message[message.size()] = '\n';
  return job;
}

void run_tool_job(ToolJob* job) {
  ToolState& state = *job->state;
  trace("MCP_TRACE event=tool_worker_start request_id=%s isolation=process\n",
        state.ActiveRequestId);
  std::uint32_t exit_code = kNeverRan;
  {
    Reply reply;
    exit_code = run_child(*job, state, reply);
    if (state.CancelRequested.load() != 0) {
      write_tool_failure({.raw = job->raw_id}, "request cancelled", R"({"cancelled":true})");
    } else if (exit_code == 0 && reply.length > 0) {
      pass_on(reply);
    } else {
      write_error_reply({}, kInternalError, "isolated MCP tool worker failed");
    }
  }
  trace("MCP_TRACE event=tool_worker_finish request_id=%s cancelled=%ld exit=%lu\n",
        state.ActiveRequestId, static_cast<long>(state.CancelRequested.load()),
        static_cast<unsigned long>(exit_code));
  std::free(job);
  state.ToolActive.store(0);
}

}  // namespace kova
