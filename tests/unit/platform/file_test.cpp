#include "platform/file.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>

#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
using testing::TemporaryDirectory;
using testing::write_file;

TEST(IsCanonicalPath, FilesNeedNotExist) {
  const TemporaryDirectory directory;
  EXPECT_TRUE(is_canonical_path(directory.path().c_str()));
  EXPECT_TRUE(is_canonical_path(directory.file("no such file").c_str()));
  EXPECT_TRUE(is_canonical_path(directory.file("no such\xc3\xa9.json").c_str()));
}

TEST(IsCanonicalPath, RelativePaths) {
  for (const char* path : {"", "a", "policy.json", "./a", "../a", ".", "..", "a/b", "a\\b", " "}) {
    EXPECT_FALSE(is_canonical_path(path)) << path;
  }
}

TEST(IsDirectory, Table) {
  const TemporaryDirectory directory;
  write_file(directory.file("file"), "x");
  EXPECT_TRUE(is_directory(directory.path().c_str()));
  EXPECT_FALSE(is_directory(directory.file("file").c_str()));
  EXPECT_FALSE(is_directory(directory.file("missing").c_str()));
  EXPECT_FALSE(is_directory(""));
}

TEST(InputFile, ReadsExactlyWhatIsAskedFor) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("na\xc3\xafve \xe2\x82\xac.json");
  write_file(path, std::string("a\r\nb\0c\x1a", 7));
  InputFile file;
  ASSERT_TRUE(file.open(path.c_str()));
  EXPECT_EQ(file.size(), 7U);
  char bytes[8] = {};
  ASSERT_TRUE(file.read(bytes, 7));
  EXPECT_EQ(std::string(bytes, 7), std::string("a\r\nb\0c\x1a", 7));
  EXPECT_FALSE(file.read(bytes, 1));
}

TEST(InputFile, FewerBytesThanAskedForFail) {
  const TemporaryDirectory directory;
  write_file(directory.file("f"), "1234");
  InputFile file;
  ASSERT_TRUE(file.open(directory.file("f").c_str()));
  char bytes[8] = {};
  EXPECT_FALSE(file.read(bytes, 5));
}

TEST(InputFile, AnEmptyFile) {
  const TemporaryDirectory directory;
  write_file(directory.file("f"), "");
  InputFile file;
  ASSERT_TRUE(file.open(directory.file("f").c_str()));
  EXPECT_EQ(file.size(), 0U);
  char byte = 0;
  EXPECT_FALSE(file.read(&byte, 1));
}

TEST(InputFile, WhatCannotBeOpened) {
  const TemporaryDirectory directory;
  InputFile missing;
  EXPECT_FALSE(missing.open(directory.file("missing").c_str()));
  InputFile folder;
  EXPECT_FALSE(folder.open(directory.path().c_str()));
  InputFile empty;
  EXPECT_FALSE(empty.open(""));
}

TEST(CreateMarkerFile, ExactlyOnce) {
  const TemporaryDirectory directory;
  const std::string path = directory.path() + kPathSeparator + "nonce \xc3\xa9.used";
  EXPECT_EQ(path, directory.file("nonce \xc3\xa9.used"));
  EXPECT_TRUE(create_marker_file(path.c_str()));
  InputFile file;
  ASSERT_TRUE(file.open(path.c_str()));
  EXPECT_EQ(file.size(), 0U);
  EXPECT_FALSE(create_marker_file(path.c_str()));
}

TEST(CreateMarkerFile, KeepsWhatIsThere) {
  const TemporaryDirectory directory;
  write_file(directory.file("f"), "kept");
  EXPECT_FALSE(create_marker_file(directory.file("f").c_str()));
  EXPECT_EQ(read_file(directory.file("f")), "kept");
  EXPECT_FALSE(create_marker_file(directory.path().c_str()));
  EXPECT_FALSE(create_marker_file(directory.file("no/such/folder").c_str()));
  EXPECT_FALSE(create_marker_file(""));
}

TEST(CreateMarkerFile, OneOfManyCallersWins) {
  const TemporaryDirectory directory;
  for (int round = 0; round < 20; ++round) {
    const std::string path = directory.file("nonce-" + std::to_string(round));
    std::array<std::thread, 4> threads;
    std::atomic<int> winners{0};
    for (std::thread& thread : threads) {
      thread = std::thread([&] { winners += create_marker_file(path.c_str()) ? 1 : 0; });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(winners, 1) << round;
  }
}

}  // namespace
}  // namespace kova
