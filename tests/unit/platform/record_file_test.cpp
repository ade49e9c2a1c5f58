#include "platform/record_file.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <thread>

#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
using testing::TemporaryDirectory;
using testing::write_file;

/// Longer than any disk takes: a test of many writers loses nothing on a slow machine.
constexpr std::uint32_t kPatienceMs = 600000;

// What operators are told.
static_assert(kRecordWaitMs == 2000);

TEST(AppendRecord, CreatesAndAppends) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit \xc3\xa9.jsonl");
  append_record(path.c_str(), "one\r\n");
  EXPECT_EQ(read_file(path), "one\r\n");
  append_record(path.c_str(), "two\r\n");
  append_record(path.c_str(), "\n\r\x1a\r\n");
  EXPECT_EQ(read_file(path), "one\r\ntwo\r\n\n\r\x1a\r\n");
}

TEST(AppendRecord, KeepsWhatIsThere) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "no line end");
  append_record(path.c_str(), "record\r\n");
  EXPECT_EQ(read_file(path), "no line endrecord\r\n");
}

TEST(AppendRecord, FailuresAreSilent) {
  const TemporaryDirectory directory;
  append_record("", "x\r\n");
  append_record(directory.path().c_str(), "x\r\n");
  append_record(directory.file("no/such/folder").c_str(), "x\r\n");
  EXPECT_EQ(read_file(directory.file("no/such/folder")), "");
}

TEST(AppendRecord, RecordsOfSeveralWritersAreAllThereAndNeverInterleave) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  constexpr std::size_t kRecords = 25;
  constexpr std::size_t kLength = 1100;
  constexpr std::size_t kWriters = 8;
  std::array<std::thread, kWriters> writers;
  for (std::size_t i = 0; i < kWriters; ++i) {
    writers[i] = std::thread([&path, mark = static_cast<char>('a' + i)] {
      for (std::size_t record = 0; record < kRecords; ++record) {
        append_record(path.c_str(), std::string(kLength, mark) + "\r\n", kPatienceMs);
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  const std::string text = read_file(path);
  ASSERT_EQ(text.size(), kWriters * kRecords * (kLength + 2));
  std::map<char, std::size_t> records;
  for (std::size_t at = 0; at < text.size(); at += kLength + 2) {
    const char mark = text[at];
    ++records[mark];
    ASSERT_EQ(text.substr(at, kLength + 2), std::string(kLength, mark) + "\r\n");
  }
  ASSERT_EQ(records.size(), kWriters);
  for (const auto& [mark, count] : records) EXPECT_EQ(count, kRecords) << mark;
}

TEST(IsStandardOutput, OtherFilesAreNot) {
  const TemporaryDirectory directory;
  write_file(directory.file("file"), "x");
  EXPECT_FALSE(is_standard_output(directory.file("file").c_str()));
  EXPECT_FALSE(is_standard_output(directory.file("missing").c_str()));
  EXPECT_FALSE(is_standard_output(directory.path().c_str()));
  EXPECT_FALSE(is_standard_output(""));
}

}  // namespace
}  // namespace kova
