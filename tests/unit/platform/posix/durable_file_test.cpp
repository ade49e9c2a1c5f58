// What Linux adds: links, named pipes, and disks that do not store.
#include "platform/durable_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/posix/sync_failure.h"
#include "support/posix/system_call_failure.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
using testing::SyncFailure;
using testing::TemporaryDirectory;
using testing::write_file;

TEST(AppendDurablyPosix, ARecordThatIsNotStoredIsTakenBack) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("journal");
  write_file(path, "one\n");
  {
    const SyncFailure failure(1);
    EXPECT_FALSE(append_durably(path.c_str(), "two\n"));
  }
  EXPECT_EQ(read_file(path), "one\n");
  EXPECT_TRUE(append_durably(path.c_str(), "two\n"));
}

TEST(AppendDurablyPosix, TheNameOfANewFileIsStoredToo) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("journal");
  const SyncFailure failure(2);
  EXPECT_FALSE(append_durably(path.c_str(), "one\n"));
  EXPECT_EQ(SyncFailure::failed(), testing::Synced::kDirectory);
  EXPECT_EQ(read_file(path), "");
}

// A file system that cannot sync folders stores their names in its own way.
TEST(AppendDurablyPosix, AFolderThatCannotBeSyncedIsAsGoodAsSynced) {
  for (const int error : {EINVAL, ENOTSUP}) {
    const TemporaryDirectory folder;
    const std::string path = folder.file("journal");
    const SyncFailure failure(2, error);
    EXPECT_TRUE(append_durably(path.c_str(), "one\n"));
    EXPECT_EQ(SyncFailure::failed(), testing::Synced::kDirectory);
    EXPECT_EQ(read_file(path), "one\n");
  }
}

TEST(AppendDurablyPosix, WithoutTheLockNothingIsWritten) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("journal");
  const testing::SystemCallFailure failure(testing::SystemCall::kFlock, ENOLCK);
  EXPECT_FALSE(append_durably(path.c_str(), "one\n"));
  EXPECT_EQ(read_file(path), "");
}

TEST(AppendDurablyPosix, AnInterruptedWaitForTheLockGoesOn) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("journal");
  const testing::SystemCallFailure failure(testing::SystemCall::kFlock, EINTR, 1, 2);
  EXPECT_TRUE(append_durably(path.c_str(), "one\n"));
}

TEST(AppendDurablyPosix, ANamedPipeIsRefusedAndNotWaitedFor) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(append_durably(path.c_str(), "one\n"));
}

TEST(PrivateFilePosix, DoesNotFollowALink) {
  const TemporaryDirectory folder;
  const std::string link = folder.file("link");
  ASSERT_EQ(symlink(folder.file("target").c_str(), link.c_str()), 0);
  PrivateFile file;
  EXPECT_FALSE(file.create(link.c_str()));
  EXPECT_NE(access(folder.file("target").c_str(), F_OK), 0);
}

TEST(PrivateFilePosix, BytesThatAreNotStoredAreAFailure) {
  const TemporaryDirectory folder;
  PrivateFile file;
  ASSERT_TRUE(file.create(folder.file("token").c_str()));
  const SyncFailure failure(1);
  EXPECT_FALSE(file.store("token"));
}

}  // namespace
}  // namespace kova
