// The order of a tool result's line, the output lock and the audit record.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "json/output_lock.h"
#include "platform/clock.h"
#include "platform/thread.h"
#include "support/posix/flush_watch.h"
#include "tools/tool_result.h"
#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

constexpr std::uint64_t kPatienceMs = 10000;

void* take_output_lock(void* argument) {
  const SpinGuard guard(OutputLock);
  *static_cast<std::atomic<bool>*>(argument) = true;
  return nullptr;
}

class AuditOrder : public ToolCalls {
 protected:
  AuditOrder() {
    EXPECT_TRUE(json_parse(R"({"id":1})", tokens_, 4, doc_));
    TextOut(audit.tool).copy_cut("tool");
  }

  /// Whether another thread gets the output lock while the record is written.
  bool lock_is_free() {
    taken_ = false;
    if (!other_.start(take_output_lock, &taken_)) return false;
    for (const std::uint64_t until = tick_ms() + kPatienceMs; !taken_ && tick_ms() < until;) {
      yield_thread();
    }
    return taken_;
  }

  JsonToken tokens_[4];
  JsonDoc doc_;
  ToolCall tool_call{.doc = doc_, .id = 2, .arguments = -1};
  ToolContext context{*policy, audit, session};
  std::atomic<bool> taken_{false};
  Thread other_;
};

TEST_F(AuditOrder, TheRecordIsWrittenBehindTheLineAndOutsideTheLock) {
  for (const bool success : {true, false}) {
    CapturedOutput output;
    std::string line;
    bool free = false;
    const FlushWatch watch([&] {
      line = output.take();
      free = lock_is_free();
      return true;
    });
    if (success) {
      write_tool_success(tool_call, context, "{}", 0);
    } else {
      write_tool_error(tool_call, context, "m");
    }
    other_.join();
    EXPECT_EQ(FlushWatch::calls(), 1);
    EXPECT_TRUE(free);
    EXPECT_EQ(line, success ? tool_success("{}", "1") : tool_error("m", "1"));
  }
}

}  // namespace
}  // namespace kova::testing
