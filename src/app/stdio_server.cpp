#include "app/stdio_server.h"

#include <cstdlib>
#include <string_view>

#include "app/prescan.h"
#include "app/tool_thread.h"
#include "app/tool_worker.h"
#include "app/trace.h"
#include "base/text.h"
#include "json/reply.h"
#include "tools/tool.h"

namespace kova {

namespace {

constexpr std::uint32_t kBusyWaitMs = 50;

/// The reading thread: frames messages, serves those that need no tool, hands the one tool call
/// that may run at a time to its thread and cancels it. Destruction waits for that call.
class StdioServer {
 public:
  StdioServer(LineReader& lines, ProtocolState& state, ToolContext& tools)
      : lines_(lines), protocol_(state), context_(tools) {}

  void run() {
    Line line;
    while (lines_.next(line)) {
      RpcError error;
      if (!serve(line, error)) write_error_reply({}, error.code, error.message);
    }
  }

 private:
  [[nodiscard]] bool serve(const Line& line, RpcError& error) {
    std::string_view message;
    if (!frame(line, message, error)) return false;
    return message.empty() || handle(message, error);
  }

  /// Sets the message of a line; empty for a line that holds none.
  [[nodiscard]] bool frame(const Line& line, std::string_view& message, RpcError& error) {
    std::string_view text = cut_at_nul(line.text);
    if (text.empty()) return true;
    if (first_line_ && text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
    first_line_ = false;
    // Without its line feed a line was cut, by the piece limit or by a NUL.
    if (!text.ends_with('\n') && !line.at_end_of_input) {
      lines_.discard_line();
      return refuse(error, kParseError, "MCP message exceeds 1048576 bytes");
    }
    message = strip_line_end(text);
    return true;
  }

  [[nodiscard]] bool handle(std::string_view message, RpcError& error) {
    const Prescan found = prescan(message);
    if (found.is_cancel && is_active() &&
        std::string_view(found.cancelled_id) == tool_.ActiveRequestId) {
      cancel();
      return true;
    }
    if (is_active() && !thread_.idle_within(kBusyWaitMs)) {
      refuse_as_busy(found);
      return true;
    }
    if (found.is_tool_call) return start_tool(message, found, error);
    dispatch(message, protocol_, context_);
    return true;
  }

  [[nodiscard]] bool is_active() const { return tool_.ToolActive.load() != 0; }

  void cancel() {
    trace("MCP_TRACE event=cancel_matched request_id=%s\n", tool_.ActiveRequestId);
    tool_.CancelRequested.store(1);
    const char* const outcome = terminate_worker_process() ? "terminated" : "starting";
    trace("MCP_TRACE event=cancel_dispatched request_id=%s isolated_process=%s\n",
          tool_.ActiveRequestId, outcome);
  }

  [[nodiscard]] bool terminate_worker_process() {
    const SpinGuard guard(tool_.worker_process_lock);
    if (tool_.WorkerProcess == nullptr) return false;
    tool_.WorkerProcess->terminate(kCancelledExitCode);
    return true;
  }

  static void refuse_as_busy(const Prescan& found) {
    if (found.raw_id[0] == '\0') return;
    write_error_reply({.raw = found.raw_id}, kBusy, "another MCP database tool is still active");
  }

  [[nodiscard]] bool start_tool(std::string_view message, const Prescan& found, RpcError& error) {
    ToolJob* const job = make_tool_job(tool_, message, found.raw_id);
    if (job == nullptr) return refuse(error, kInternalError, kServerMemoryLimit);
    set_active_request_id(found.raw_id);
    tool_.CancelRequested.store(0);
    tool_.ToolActive.store(1);
    if (thread_.run(job)) return true;
    tool_.ToolActive.store(0);
    std::free(job);
    return refuse(error, kInternalError, "worker creation failed");
  }

  /// The id as a cancel spells it: a string without its quotation marks, its escapes as they are.
  void set_active_request_id(std::string_view raw_id) {
    TextOut id(tool_.ActiveRequestId);
    if (!raw_id.starts_with('"')) {
      id.copy_cut(raw_id);
    } else if (raw_id.size() >= 3 && raw_id.size() <= kIdCapacity) {
      id.copy_cut(slice(raw_id, 1, raw_id.size() - 2));
    } else {
      id.copy_cut("invalid");
    }
  }

  LineReader& lines_;
  ProtocolState& protocol_;
  ToolContext& context_;
  ToolState tool_;
  ToolThread thread_{tool_};
  bool first_line_ = true;
};

}  // namespace

void run_stdio_server(LineReader& lines, ProtocolState& state, ToolContext& tools) {
  StdioServer(lines, state, tools).run();
}

}  // namespace kova
