#include "platform/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/posix/open_files.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::is_open_below;
using testing::read_file;
using testing::TemporaryDirectory;
using testing::write_file;

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
  append_record(path.c_str(), "x\r\n");
  InputFile device;
  EXPECT_FALSE(device.open("/dev/null"));
}

mode_t mode_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

TEST(AppendRecordPosix, ANewFileIsItsOwnersAlone) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const mode_t before = umask(0);
  append_record(path.c_str(), "x\r\n");
  umask(before);
  EXPECT_EQ(mode_of(path), 0600U);
  EXPECT_EQ(read_file(path), "x\r\n");
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

TEST(AppendRecordPosix, TheModeOfAnExistingFileStays) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  append_record(path.c_str(), "x\r\n");
  EXPECT_EQ(mode_of(path), 0640U);
}

TEST(AppendRecordPosix, AHeldLockDropsTheRecord) {
  // A shared lock, too: a writer needs the file to itself.
  for (const int kind : {LOCK_EX, LOCK_SH}) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("audit.jsonl");
    write_file(path, "");
    const int holder = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(flock(holder, kind | LOCK_NB), 0);
    append_record(path.c_str(), "dropped\r\n");
    EXPECT_EQ(read_file(path), "");
    ASSERT_EQ(flock(holder, LOCK_UN), 0);
    append_record(path.c_str(), "kept\r\n");
    EXPECT_EQ(read_file(path), "kept\r\n");
    close(holder);
  }
}

TEST(AppendRecordPosix, AReaderCostsNoRecord) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "first\r\n");
  const int reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  append_record(path.c_str(), "second\r\n");
  EXPECT_EQ(read_file(path), "first\r\nsecond\r\n");
  close(reader);
}

TEST(AppendRecordPosix, NoDescriptorStaysOpen) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  for (int i = 0; i < 5; ++i) append_record(path.c_str(), "x\r\n");
  append_record(directory.path().c_str(), "x\r\n");
  {
    InputFile file;
    static_cast<void>(file.open(path.c_str()));
  }
  EXPECT_FALSE(is_open_below(directory.path()));
  const int open_file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_TRUE(is_open_below(directory.path()));
  close(open_file);
}

}  // namespace
}  // namespace kova
