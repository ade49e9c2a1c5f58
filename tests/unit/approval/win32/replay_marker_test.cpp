// Markers that the system cannot create; those that it creates are hidden.
#include "approval/replay_marker.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "unit/approval/approval_fixture.h"

namespace kova::testing {
namespace {

class Win32ReplayMarker : public Approvals {
 protected:
  void expect_unavailable() {
    TextOut(message).copy_cut(kUntouched);
    EXPECT_FALSE(consume_nonce(*policy, kNonce, message));
    EXPECT_EQ(std::string_view(message), kUsed);
  }
};

TEST_F(Win32ReplayMarker, NeedsADriveThatIsThere) {
  TextOut(policy->approval_state_directory).copy_cut("B:\\state");
  expect_unavailable();
}

TEST_F(Win32ReplayMarker, NeedsANameThatFilesMayHave) {
  TextOut(policy->approval_state_directory).copy_cut(folder.file("a<b>|c?"));
  expect_unavailable();
  TextOut(policy->approval_state_directory).copy_cut("\\\\.\\nonsense-device");
  expect_unavailable();
}

// A directory whose name is not UTF-8 cannot be named to the system.
TEST_F(Win32ReplayMarker, NeedsAPathInUtf8) {
  TextOut(policy->approval_state_directory).copy_cut(folder.file("\xFF\xFE"));
  expect_unavailable();
}

// A marker that another process holds open without sharing is there all the same.
TEST_F(Win32ReplayMarker, AMarkerInUseUsesTheNonceUp) {
  const std::string path = folder.file(kNonce + ".used");
  const HANDLE held = CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(held, INVALID_HANDLE_VALUE);
  expect_unavailable();
  CloseHandle(held);
  expect_unavailable();
}

TEST_F(Win32ReplayMarker, IsHidden) {
  ASSERT_TRUE(consume_nonce(*policy, kNonce, message));
  const DWORD attributes = GetFileAttributesA(folder.file(kNonce + ".used").c_str());
  ASSERT_NE(attributes, INVALID_FILE_ATTRIBUTES);
  EXPECT_NE(attributes & FILE_ATTRIBUTE_HIDDEN, 0U);
}

// Nothing keeps a marker open: it can be deleted at once.
TEST_F(Win32ReplayMarker, ClosesWhatItOpens) {
  ASSERT_TRUE(consume_nonce(*policy, kNonce, message));
  EXPECT_NE(DeleteFileA(folder.file(kNonce + ".used").c_str()), 0);
  EXPECT_TRUE(consume_nonce(*policy, kNonce, message));
}

}  // namespace
}  // namespace kova::testing
