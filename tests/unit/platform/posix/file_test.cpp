#include "platform/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/posix/file_mode.h"
#include "support/posix/sync_failure.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::mode_of;
using testing::Synced;
using testing::SyncFailure;
using testing::TemporaryDirectory;

TEST(IsCanonicalPathPosix, Table) {
  const struct {
    std::string path;
    bool canonical;
  } rows[] = {
      {"/", true},
      {"/a", true},
      {"/a/b.json", true},
      {"/a b/c", true},
      {"/a/", true},
      {"/.hidden/..more/x..", true},
      {"/...", true},
      {"/a/b.", true},
      {"/\xc3\xa9", true},
      {"//", false},
      {"//a", false},
      {"/a//b", false},
      {"/a/b//", false},
      {"/.", false},
      {"/..", false},
      {"/a/.", false},
      {"/a/..", false},
      {"/./a", false},
      {"/../a", false},
      {"/a/./b", false},
      {"/a/../b", false},
      {"/a/../", false},
      {"~/a", false},
      {" /a", false},
      {"C:/a", false},
      {"C:\\a", false},
      {"/" + std::string(1022, 'x'), true},
      {"/" + std::string(1023, 'x'), false},
      {"/" + std::string(5000, 'x'), false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(is_canonical_path(row.path.c_str()), row.canonical) << row.path.substr(0, 80);
  }
}

TEST(IsDirectoryPosix, FollowsLinks) {
  const TemporaryDirectory directory;
  ASSERT_EQ(symlink(directory.path().c_str(), directory.file("link").c_str()), 0);
  EXPECT_TRUE(is_directory(directory.file("link").c_str()));
  ASSERT_EQ(symlink("/no/such", directory.file("dangling").c_str()), 0);
  EXPECT_FALSE(is_directory(directory.file("dangling").c_str()));
}

// Opening a pipe with no one at its other end would wait for good.
TEST(InputFilePosix, OnlyRegularFiles) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  InputFile file;
  EXPECT_FALSE(file.open(path.c_str()));
  InputFile device;
  EXPECT_FALSE(device.open("/dev/null"));
}

TEST(CreateMarkerFilePosix, IsItsOwnersAloneAndFollowsNoLink) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("nonce.used");
  const mode_t before = umask(0);
  EXPECT_TRUE(create_marker_file(path.c_str()));
  umask(before);
  EXPECT_EQ(mode_of(path), 0600U);
  ASSERT_EQ(symlink(directory.file("target").c_str(), directory.file("link").c_str()), 0);
  EXPECT_FALSE(create_marker_file(directory.file("link").c_str()));
  EXPECT_EQ(access(directory.file("target").c_str(), F_OK), -1);
}

// A file system that cannot sync folders stores their names in its own way.
TEST(CreateMarkerFilePosix, AFolderThatCannotBeSyncedIsAsGoodAsSynced) {
  for (const int error : {EINVAL, ENOTSUP}) {
    const TemporaryDirectory directory;
    const SyncFailure failure(2, error);
    EXPECT_TRUE(create_marker_file(directory.file("marker").c_str())) << error;
    EXPECT_EQ(SyncFailure::failed(), Synced::kDirectory);
  }
  for (const int error : {EIO, ENOSPC, EDQUOT, EROFS, EINTR}) {
    const TemporaryDirectory directory;
    const SyncFailure failure(2, error);
    EXPECT_FALSE(create_marker_file(directory.file("marker").c_str())) << error;
    EXPECT_EQ(SyncFailure::failed(), Synced::kDirectory);
  }
  for (const int error : {EINVAL, ENOTSUP, EIO}) {
    const TemporaryDirectory directory;
    const SyncFailure failure(1, error);
    EXPECT_FALSE(create_marker_file(directory.file("marker").c_str())) << error;
    EXPECT_EQ(SyncFailure::failed(), Synced::kFile);
  }
}

}  // namespace
}  // namespace kova
