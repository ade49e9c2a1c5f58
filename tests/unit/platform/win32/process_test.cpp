#include "platform/process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "support/child_modes.h"

namespace kova {
namespace {

std::string output_of(const char* mode) {
  ChildProcess child;
  if (!child.start(mode)) return "not started";
  child.close_input();
  std::string text;
  char block[256];
  while (const std::size_t got = child.read_output(block, sizeof block)) text.append(block, got);
  child.wait();
  EXPECT_EQ(child.collect(), 0U);
  return text;
}

// No error box waits for a click; what the process was started with stays.
TEST(PrepareProcess, TurnsTheSystemsErrorBoxesOff) {
  const UINT wanted = SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX;
  EXPECT_EQ(output_of(testing::kChildPrepared), "error mode " + std::to_string(wanted) + "\n");
}

}  // namespace
}  // namespace kova
