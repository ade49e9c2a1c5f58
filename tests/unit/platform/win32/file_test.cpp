#include "platform/file.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
using testing::TemporaryDirectory;
using testing::write_file;

TEST(IsCanonicalPathWindows, Table) {
  const struct {
    std::string path;
    bool canonical;
  } rows[] = {
      {R"(C:\)", true},
      {R"(C:\a)", true},
      {R"(c:\A b\c.json)", true},
      {R"(C:\a\)", true},
      {R"(C:\.hidden\..more)", true},
      {"C:\\\xc3\xa9.json", true},
      {R"(\\server\share\a.json)", true},
      {"C:", false},
      {"C:a", false},
      {R"(\a)", false},
      {"/a", false},
      {"C:/a", false},
      {R"(C:\a/b)", false},
      {R"(C:\\a)", false},
      {R"(C:\a\\b)", false},
      {R"(C:\.)", false},
      {R"(C:\a\.)", false},
      {R"(C:\a\..)", false},
      {R"(C:\a\.\b)", false},
      {R"(C:\a\..\b)", false},
      {R"(C:\..\a)", false},
      {"NUL", false},
      {"C:\\\xff", false},
      {R"(C:\)" + std::string(1020, 'x'), true},
      {R"(C:\)" + std::string(1021, 'x'), false},
      {R"(C:\)" + std::string(5000, 'x'), false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(is_canonical_path(row.path.c_str()), row.canonical) << row.path.substr(0, 80);
  }
}

TEST(AppendRecordWindows, AnotherWriterDropsTheRecord) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "");
  const HANDLE writer = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(writer, INVALID_HANDLE_VALUE);
  append_record(path.c_str(), "dropped\r\n");
  CloseHandle(writer);
  EXPECT_EQ(read_file(path), "");
  append_record(path.c_str(), "kept\r\n");
  EXPECT_EQ(read_file(path), "kept\r\n");
}

TEST(AppendRecordWindows, AReaderThatSharesCostsNoRecord) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "first\r\n");
  const HANDLE reader = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(reader, INVALID_HANDLE_VALUE);
  append_record(path.c_str(), "second\r\n");
  CloseHandle(reader);
  EXPECT_EQ(read_file(path), "first\r\nsecond\r\n");
}

}  // namespace
}  // namespace kova
