#include "platform/file_probe.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/file_rights.h"
#include "platform/file_system.h"
#include "platform/machine_state.h"
#include "platform/private_files.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
using testing::TemporaryDirectory;
using testing::write_file;

TEST(FileProbe, AppendingIsJudgedWithoutAChange) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("a");
  EXPECT_FALSE(can_append(path.c_str()));
  EXPECT_FALSE(path_exists(path.c_str()));
  write_file(path, "text");
  EXPECT_TRUE(can_append(path.c_str()));
  EXPECT_EQ(read_file(path), "text");
  EXPECT_FALSE(can_append(folder.path().c_str()));
}

TEST(FileProbe, ExclusiveCreationLeavesNothing) {
  const TemporaryDirectory folder;
  EXPECT_EQ(probe_exclusive_create(folder.path().c_str(), "probe"), CreateProbe::kWorks);
  EXPECT_FALSE(path_exists(folder.file("probe").c_str()));
  write_file(folder.file("probe"), "mine");
  EXPECT_EQ(probe_exclusive_create(folder.path().c_str(), "probe"), CreateProbe::kRefused);
  EXPECT_EQ(read_file(folder.file("probe")), "mine");
  EXPECT_EQ(probe_exclusive_create(folder.file("none").c_str(), "p"), CreateProbe::kRefused);
}

TEST(FileProbe, FoldersAreSynced) {
  const TemporaryDirectory folder;
  EXPECT_TRUE(can_sync_folder(folder.path().c_str()));
  EXPECT_FALSE(can_sync_folder(folder.file("none").c_str()));
}

TEST(FileProbe, TheEndOfAFile) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("a");
  char end[4];
  std::size_t length = 9;
  EXPECT_FALSE(read_file_end(path.c_str(), end, sizeof end, length));
  write_file(path, "");
  ASSERT_TRUE(read_file_end(path.c_str(), end, sizeof end, length));
  EXPECT_EQ(length, 0U);
  write_file(path, "abc");
  ASSERT_TRUE(read_file_end(path.c_str(), end, sizeof end, length));
  EXPECT_EQ(std::string(end, length), "abc");
  write_file(path, "abcdef");
  ASSERT_TRUE(read_file_end(path.c_str(), end, sizeof end, length));
  EXPECT_EQ(std::string(end, length), "cdef");
}

TEST(PrivateFiles, NothingIsReplaced) {
  const TemporaryDirectory folder;
  const std::string first = folder.file("first");
  const std::string second = folder.file("second");
  ASSERT_TRUE(write_private_file(first.c_str(), "one", FileUse::kData));
  EXPECT_FALSE(write_private_file(first.c_str(), "two", FileUse::kData));
  EXPECT_EQ(read_file(first), "one");
  write_file(second, "mine");
  EXPECT_FALSE(move_without_replacing(first.c_str(), second.c_str()));
  EXPECT_EQ(read_file(second), "mine");
  ASSERT_TRUE(move_without_replacing(first.c_str(), folder.file("third").c_str()));
  EXPECT_EQ(read_file(folder.file("third")), "one");
  EXPECT_FALSE(path_exists(first.c_str()));
}

TEST(PrivateFiles, RightsOfWhatIsMade) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("made");
  ASSERT_TRUE(make_private_folder(path.c_str()));
  EXPECT_FALSE(make_private_folder(path.c_str()));
  FileRights rights;
  ASSERT_TRUE(read_file_rights(path.c_str(), rights));
  EXPECT_TRUE(rights.is_directory && rights.owner_is_trusted);
  EXPECT_NE(rights.owner[0], '\0');
  EXPECT_FALSE(rights.group_reads || rights.group_writes || rights.group_replaces);
  EXPECT_FALSE(rights.others_read || rights.others_write || rights.others_replace);
  EXPECT_FALSE(read_file_rights(folder.file("none").c_str(), rights));
}

TEST(FileSystem, OfAFolder) {
  const TemporaryDirectory folder;
  FileSystemFacts facts;
  ASSERT_TRUE(read_file_system(folder.path().c_str(), facts));
  EXPECT_NE(facts.name[0], '\0');
  EXPECT_FALSE(read_file_system(folder.file("none/none").c_str(), facts));
}

TEST(MachineState, LimitsAreThere) {
  EXPECT_GT(process_limits().descriptors, 0U);
}

}  // namespace
}  // namespace kova
