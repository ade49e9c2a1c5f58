// Paths and files as POSIX systems have them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

TEST_F(PolicyLoading, PathsAreCaseSensitiveOnPosix) {
  const std::string path = folder.file("policy.json");
  write_file(path, PolicyDocument().text());
  EXPECT_TRUE(load_file(path));
  EXPECT_FALSE(load_file(folder.file("POLICY.json")));
  expect_refusal(kOpenMessage);
}

TEST_F(PolicyLoading, ABackslashIsAnOrdinaryByteOfAPosixPath) {
  const std::string path = folder.file("a\\b");
  write_file(path, PolicyDocument().text());
  EXPECT_TRUE(load_file(path));
  EXPECT_FALSE(load_file("\\policy.json"));
  expect_refusal(kPathMessage);
  EXPECT_FALSE(load_file("C:\\policy.json"));
  expect_refusal(kPathMessage);
}

TEST_F(PolicyLoading, DotsWithinANameAreNoDotParts) {
  for (const char* name : {"...", "..a", "a..", ".a", "a."}) {
    write_file(folder.file(name), PolicyDocument().text());
    EXPECT_TRUE(load_file(folder.file(name))) << name;
  }
}

// Opening a pipe that nobody writes to must not wait.
TEST_F(PolicyLoading, ANamedPipeCannotBeOpened) {
  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(load_file(folder.file("pipe")));
  expect_refusal(kOpenMessage);
}

// The kernel states a size of 4,096 bytes for such a file and has fewer to read.
TEST_F(PolicyLoading, AFileThatEndsBeforeItsSizeIsRefused) {
  EXPECT_FALSE(load_file("/sys/devices/system/cpu/online"));
  expect_refusal(kReadMessage);
}

TEST_F(PolicyLoading, AFileOfUnstatedSizeIsRefused) {
  EXPECT_FALSE(load_file("/proc/self/environ"));
  expect_refusal(kSizeMessage);
}

TEST_F(PolicyLoading, TheApprovalDirectoryUsesSlashes) {
  expect_refused(PolicyDocument().with_approved_writes("C:\\state"), kDirectoryPathMessage);
  expect_refused(PolicyDocument().with_approved_writes("\\state"), kDirectoryPathMessage);
}

}  // namespace
}  // namespace kova::testing
