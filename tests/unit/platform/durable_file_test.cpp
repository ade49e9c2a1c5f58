// Records that are appended for good, and new files of their owner alone.
#include "platform/durable_file.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/file_rights.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
using testing::TemporaryDirectory;
using testing::write_file;

bool is_for_its_owner_alone(const std::string& path) {
  FileRights rights;
  return read_file_rights(path.c_str(), rights) && rights.owner_is_trusted && !rights.group_reads &&
         !rights.group_writes && !rights.others_read && !rights.others_write;
}

TEST(AppendDurably, MakesTheFileAndAddsToItsEnd) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("j\xC3\xBCrnal");
  ASSERT_TRUE(append_durably(path.c_str(), "one\n"));
  ASSERT_TRUE(append_durably(path.c_str(), "two\n"));
  EXPECT_EQ(read_file(path), "one\ntwo\n");
  EXPECT_TRUE(is_for_its_owner_alone(path));
  write_file(path, "no end");
  ASSERT_TRUE(append_durably(path.c_str(), ", more\n"));
  EXPECT_EQ(read_file(path), "no end, more\n");
}

TEST(AppendDurably, RefusesWhatIsNoFile) {
  const TemporaryDirectory folder;
  EXPECT_FALSE(append_durably(folder.path().c_str(), "one\n"));
  EXPECT_FALSE(append_durably(folder.file("none/journal").c_str(), "one\n"));
  EXPECT_FALSE(append_durably("", "one\n"));
}

TEST(AppendDurably, RecordsOfSeveralWritersNeverMix) {
  constexpr int kWriters = 4;
  constexpr int kRecords = 8;
  const TemporaryDirectory folder;
  const std::string path = folder.file("journal");
  std::vector<std::thread> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.emplace_back([&path, writer] {
      const std::string record = std::string(997, static_cast<char>('a' + writer)) + "\n";
      for (int i = 0; i < kRecords; ++i) EXPECT_TRUE(append_durably(path.c_str(), record));
    });
  }
  for (std::thread& writer : writers) writer.join();
  const std::string text = read_file(path);
  ASSERT_EQ(text.size(), std::size_t{998} * kWriters * kRecords);
  for (std::size_t begin = 0; begin < text.size(); begin += 998) {
    EXPECT_EQ(text.substr(begin, 998), std::string(997, text[begin]) + "\n");
  }
}

TEST(PrivateFile, IsNewAndForItsOwnerAlone) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("token");
  PrivateFile file;
  ASSERT_TRUE(file.create(path.c_str()));
  EXPECT_TRUE(is_for_its_owner_alone(path));
  ASSERT_TRUE(file.store("     "));
  ASSERT_TRUE(file.store("token"));
  file.close();
  file.close();
  EXPECT_EQ(read_file(path), "token");
}

TEST(PrivateFile, ReplacesNothing) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("token");
  write_file(path, "mine");
  PrivateFile file;
  EXPECT_FALSE(file.create(path.c_str()));
  EXPECT_FALSE(file.create(folder.path().c_str()));
  EXPECT_FALSE(file.create(folder.file("none/token").c_str()));
  EXPECT_EQ(read_file(path), "mine");
}

}  // namespace
}  // namespace kova
