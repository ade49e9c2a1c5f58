// Markers that the system cannot create.
#include "approval/replay_marker.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/posix/open_files.h"
#include "support/posix/sync_failure.h"
#include "unit/approval/approval_fixture.h"

namespace kova::testing {
namespace {

class PosixReplayMarker : public Approvals {
 protected:
  void expect_unavailable() {
    TextOut(message).copy_cut(kUntouched);
    EXPECT_FALSE(consume_nonce(*policy, kNonce, message));
    EXPECT_EQ(std::string_view(message), kUsed);
  }
};

// A file system that takes no new files from anybody.
TEST_F(PosixReplayMarker, NeedsADirectoryThatCanBeWritten) {
  TextOut(policy->approval_state_directory).copy_cut("/proc");
  expect_unavailable();
}

TEST_F(PosixReplayMarker, NeedsAFreeDescriptor) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool consumed = consume_nonce(*policy, kNonce, message);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_FALSE(consumed);
  EXPECT_EQ(std::string_view(message), kUsed);
  EXPECT_TRUE(markers().empty());
}

// A marker that a crash of the machine could undo would let the token through twice: first its
// file is stored, then the folder that holds its name.
TEST_F(PosixReplayMarker, NeedsToBeStoredForGood) {
  const Synced steps[] = {Synced::kFile, Synced::kDirectory};
  for (int step = 0; step < 2; ++step) {
    {
      const SyncFailure failure(step + 1);
      expect_unavailable();
      EXPECT_EQ(SyncFailure::failed(), steps[step]);
    }
    // The nonce is used up all the same.
    expect_unavailable();
    forget_markers();
  }
  EXPECT_TRUE(consume_nonce(*policy, kNonce, message));
}

// A link is not followed, wherever it leads: creation is exclusive.
TEST_F(PosixReplayMarker, ALinkOfTheNameUsesTheNonceUp) {
  const std::string marker = folder.file(kNonce + ".used");
  const std::string target = folder.file("target");
  ASSERT_EQ(symlink(target.c_str(), marker.c_str()), 0);
  expect_unavailable();
  EXPECT_EQ(::access(target.c_str(), F_OK), -1);
}

TEST_F(PosixReplayMarker, ALoopOfLinksIsNoDirectory) {
  const std::string loop = folder.file("loop");
  ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
  TextOut(policy->approval_state_directory).copy_cut(loop);
  expect_unavailable();
}

TEST_F(PosixReplayMarker, IsItsOwnersAlone) {
  ASSERT_TRUE(consume_nonce(*policy, kNonce, message));
  struct stat status {};
  ASSERT_EQ(stat(folder.file(kNonce + ".used").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(status.st_size, 0);
}

// The marker's descriptor does not stay open.
TEST_F(PosixReplayMarker, ClosesWhatItOpens) {
  ASSERT_TRUE(consume_nonce(*policy, kNonce, message));
  expect_unavailable();
  EXPECT_FALSE(is_open_below(folder.path()));
}

}  // namespace
}  // namespace kova::testing
