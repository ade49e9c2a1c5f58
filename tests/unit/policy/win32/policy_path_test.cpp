// Paths and files as Windows has them.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "base/ascii.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

std::string in_other_case(std::string text) {
  for (char& c : text) c = is_upper(c) ? to_lower(c) : to_upper(c);
  return text;
}

std::string with_slashes(std::string text) {
  for (char& c : text) {
    if (c == '\\') c = '/';
  }
  return text;
}

TEST_F(PolicyLoading, PathsIgnoreCaseOnWindows) {
  const std::string path = folder.file("policy.json");
  write_file(path, PolicyDocument().text());
  EXPECT_TRUE(load_file(in_other_case(path)));
  expect_loaded(PolicyDocument().with_approved_writes(in_other_case(folder.path())));
}

TEST_F(PolicyLoading, APathThatWindowsRewritesIsRefused) {
  const std::string path = folder.file("policy.json");
  write_file(path, PolicyDocument().text());
  for (const std::string& other :
       {with_slashes(path), path + ".", path + " ", path.substr(2), std::string("C:policy.json"),
        std::string("\\policy.json"), std::string("/policy.json"), std::string("nul"),
        std::string("C:")}) {
    SCOPED_TRACE(other);
    EXPECT_FALSE(load_file(other));
    expect_refusal(kPathMessage);
  }
}

TEST_F(PolicyLoading, AnApprovalDirectoryThatWindowsRewritesIsRefused) {
  for (const std::string& directory :
       {with_slashes(folder.path()), folder.path().substr(2), std::string("C:state")}) {
    SCOPED_TRACE(directory);
    expect_refused(PolicyDocument().with_approved_writes(directory), kDirectoryPathMessage);
  }
}

TEST_F(PolicyLoading, AFileThatIsBeingWrittenCannotBeOpened) {
  const std::string path = folder.file("policy.json");
  write_file(path, PolicyDocument().text());
  const HANDLE writer =
      CreateFileW(std::wstring(path.begin(), path.end()).c_str(), GENERIC_WRITE,
                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(writer, INVALID_HANDLE_VALUE);
  EXPECT_FALSE(load_file(path));
  CloseHandle(writer);
  expect_refusal(kOpenMessage);
  EXPECT_TRUE(load_file(path));
}

}  // namespace
}  // namespace kova::testing
