#include "platform/process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <regex>
#include <string>

#include "support/child_modes.h"
#include "support/win32/child_modes.h"
#include "support/win32/start_refusal.h"

namespace kova {
namespace {

std::string output_of(const char* mode) {
  ChildProcess child;
  if (!child.start(mode)) return "not started";
  std::string text;
  char block[256];
  while (const std::size_t got = child.read_output(block, sizeof block)) text.append(block, got);
  child.close_input();
  child.wait();
  EXPECT_EQ(child.collect(), 0U);
  return text;
}

// No error box waits for a click; what the process was started with stays.
TEST(PrepareProcess, TurnsTheSystemsErrorBoxesOff) {
  const UINT wanted = SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX;
  EXPECT_EQ(output_of(testing::kChildPrepared), "error mode " + std::to_string(wanted) + "\n");
}

// A child's libraries are loaded before its main can turn the error boxes off. Wine gives every
// process the system's own error mode, so this looks at the flag that would do the same on Windows.
TEST(ChildProcessWindows, ItIsGivenTheErrorModeOfThisProcess) {
  EXPECT_EQ(output_of(testing::kChildHandles), "none\n");
  EXPECT_NE(testing::last_start_flags() & CREATE_NO_WINDOW, 0U);
  EXPECT_EQ(testing::last_start_flags() & CREATE_DEFAULT_ERROR_MODE, 0U);
}

// The folder of the pipes that a process inside an app container may make.
TEST(ChildProcessWindows, ItsStreamsAreTwoPipesOfTheLocalFolder) {
  const std::string names = output_of(testing::kChildStreamNames);
  const std::string pipe =
      R"(\\LOCAL\\kova-mcp-)" + std::to_string(GetCurrentProcessId()) + "-([0-9]+)-[0-9a-f]+\n";
  std::smatch found;
  ASSERT_TRUE(std::regex_match(names, found, std::regex(pipe + pipe))) << names;
  EXPECT_NE(found[1], found[2]);
}

// Injected, since a process that is put into such a job stays there.
TEST(ChildProcessWindows, TellsWhetherTheJobOfThisProcessRefusedTheChild) {
  const struct {
    DWORD error;
    bool in_job, refused;
  } rows[] = {
      {ERROR_ACCESS_DENIED, true, true},   {ERROR_NOT_SUPPORTED, true, true},
      {ERROR_ACCESS_DENIED, false, false}, {ERROR_NOT_SUPPORTED, false, false},
      {ERROR_FILE_NOT_FOUND, true, false}, {ERROR_NOT_ENOUGH_MEMORY, true, false},
  };
  for (const auto& row : rows) {
    const testing::StartRefusal refusal(row.error, row.in_job);
    ChildProcess child;
    EXPECT_FALSE(child.start(testing::kChildExit7));
    EXPECT_EQ(child.job_refused(), row.refused) << row.error << " in a job: " << row.in_job;
  }
}

// A start that fails before the system is asked says nothing of a job.
TEST(ChildProcessWindows, ARefusalByTheJobIsForgottenWithTheNextStart) {
  const testing::StartRefusal refusal(ERROR_ACCESS_DENIED, true);
  ChildProcess child;
  EXPECT_FALSE(child.start(testing::kChildExit7));
  ASSERT_TRUE(child.job_refused());
  EXPECT_FALSE(child.start(std::string(300, 'x').c_str()));
  EXPECT_FALSE(child.job_refused());
}

}  // namespace
}  // namespace kova
