// Rights as modes give them.
#include "platform/file_rights.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::TemporaryDirectory;

struct Row {
  mode_t mode;
  bool group_reads, group_writes, group_replaces, others_read, others_write, others_replace;
};

void expect_rights(const std::string& path, const Row& row) {
  ASSERT_EQ(chmod(path.c_str(), row.mode), 0);
  FileRights rights;
  ASSERT_TRUE(read_file_rights(path.c_str(), rights));
  EXPECT_EQ(rights.group_reads, row.group_reads) << std::oct << row.mode;
  EXPECT_EQ(rights.group_writes, row.group_writes) << std::oct << row.mode;
  EXPECT_EQ(rights.group_replaces, row.group_replaces) << std::oct << row.mode;
  EXPECT_EQ(rights.others_read, row.others_read) << std::oct << row.mode;
  EXPECT_EQ(rights.others_write, row.others_write) << std::oct << row.mode;
  EXPECT_EQ(rights.others_replace, row.others_replace) << std::oct << row.mode;
  EXPECT_TRUE(rights.owner_is_trusted);
  EXPECT_NE(rights.owner[0], '\0');
  EXPECT_NE(rights.group[0], '\0');
}

TEST(FileRightsPosix, OfAFile) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("secret");
  testing::write_file(path, "x");
  constexpr Row kRows[] = {
      {0600, false, false, false, false, false, false},
      {0640, true, false, false, false, false, false},
      {0620, false, true, false, false, false, false},
      {0604, false, false, false, true, false, false},
      {0602, false, false, false, false, true, false},
      {0666, true, true, false, true, true, false},
      {0711, false, false, false, false, false, false},
  };
  for (const Row& row : kRows) expect_rights(path, row);
}

TEST(FileRightsPosix, OfAFolder) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("state");
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  constexpr Row kRows[] = {
      {0700, false, false, false, false, false, false},
      {0770, true, true, true, false, false, false},
      {0777, true, true, true, true, true, true},
      // Each account removes its own files alone.
      {01777, true, true, false, true, true, false},
      {0755, true, false, false, true, false, false},
  };
  for (const Row& row : kRows) expect_rights(path, row);
}

TEST(FileRightsPosix, ALinkIsFollowed) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("secret");
  testing::write_file(path, "x");
  ASSERT_EQ(chmod(path.c_str(), 0604), 0);
  ASSERT_EQ(symlink(path.c_str(), folder.file("link").c_str()), 0);
  FileRights rights;
  ASSERT_TRUE(read_file_rights(folder.file("link").c_str(), rights));
  EXPECT_TRUE(rights.others_read);
  EXPECT_FALSE(rights.is_directory);
}

}  // namespace
}  // namespace kova
