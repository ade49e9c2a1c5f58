// The order of a tool result's line, the output lock and the audit record.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <string_view>

#include "json/json.h"
#include "json/output_lock.h"
#include "json/reply.h"
#include "platform/clock.h"
#include "platform/thread.h"
#include "support/captured_output.h"
#include "support/flush_watch.h"
#include "tools/tool.h"
#include "tools/tool_call.h"
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
  /// Whether another thread gets the output lock while the record is written.
  bool lock_is_free() {
    taken_ = false;
    if (!other_.start(take_output_lock, &taken_)) return false;
    for (const std::uint64_t until = tick_ms() + kPatienceMs; !taken_ && tick_ms() < until;) {
      yield_thread();
    }
    return taken_;
  }

  std::atomic<bool> taken_{false};
  Thread other_;
};

TEST_F(AuditOrder, TheRecordIsWrittenBehindTheLineAndOutsideTheLock) {
  for (const std::string_view arguments : {R"({})", R"({"no":"such"})"}) {
    const std::string request = R"({"id":1,"params":{"name":"kova_list_tables","arguments":)" +
                                std::string(arguments) + "}}";
    JsonToken tokens[16];
    JsonDoc doc;
    ASSERT_TRUE(json_parse(request, tokens, 16, doc));
    ToolContext context{*policy, audit, session};
    RpcError error;
    CapturedOutput output;
    std::string line;
    bool free = false;
    const FlushWatch watch([&] {
      line = output.take();
      free = lock_is_free();
      return true;
    });
    EXPECT_TRUE(handle_tools_call(doc, json_find(doc, 0, "id"), json_find(doc, 0, "params"),
                                  context, error));
    other_.join();
    EXPECT_EQ(FlushWatch::calls(), 1);
    EXPECT_TRUE(free);
    EXPECT_TRUE(line.starts_with(R"({"jsonrpc":"2.0","id":1,"result":)") && line.ends_with("}}\n"))
        << line;
    EXPECT_EQ(output.take(), "");
  }
}

}  // namespace
}  // namespace kova::testing
