#include "app/trace.h"

#include <gtest/gtest.h>

#include <string>

#include "support/captured_output.h"
#include "support/environment.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::ScopedEnvironment;
using testing::Stream;

std::string without_carriage_returns(std::string text) {
  std::erase(text, '\r');
  return text;
}

TEST(Trace, IsSwitchedByTheEnvironmentAtEachCall) {
  const struct {
    const char* value;
    bool on;
  } rows[] = {{"", false},  {"0", false}, {"1", true},     {"00", true},
              {"0 ", true}, {" ", true},  {"false", true}, {"no", true}};
  ScopedEnvironment debug("KOVA_MCP_DEBUG");
  {
    CapturedOutput error(Stream::kError);
    trace("MCP_TRACE event=%s\n", "test");
    EXPECT_EQ(error.take(), "");
  }
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    debug.set(row.value);
    CapturedOutput error(Stream::kError);
    CapturedOutput output(Stream::kOutput);
    trace("MCP_TRACE event=%s number=%lu\n", "test", 1223UL);
    EXPECT_EQ(without_carriage_returns(error.take()),
              row.on ? "MCP_TRACE event=test number=1223\n" : "");
    EXPECT_EQ(output.take(), "");
  }
}

}  // namespace
}  // namespace kova
