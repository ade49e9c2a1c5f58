// Whole files as text, and the line end of a secret.
#include "admin/common/file_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "admin/common/refusal.h"
#include "support/temporary_directory.h"

namespace kova::admin {
namespace {

TEST(CutLineEnd, TakesOneLineEnd) {
  const std::pair<std::string_view, std::string_view> rows[] = {
      {"", ""},           {"\n", ""},
      {"\r\n", ""},       {"\r", "\r"},
      {"key", "key"},     {"key\n", "key"},
      {"key\r\n", "key"}, {"key\n\n", "key\n"},
      {"key\r", "key\r"}, {"key\r\r\n", "key\r"},
      {" key ", " key "}};
  for (const auto& [text, kept] : rows) {
    SecretText secret(text);
    cut_line_end(secret);
    EXPECT_EQ(secret.view(), kept);
  }
}

TEST(ReadFile, AtMostTheLimit) {
  const testing::TemporaryDirectory folder;
  const std::string path = folder.file("text");
  testing::write_file(path, "12345");
  EXPECT_EQ(read_file(path, 5).view(), "12345");
  EXPECT_THROW(static_cast<void>(read_file(path, 4)), Refusal);
  testing::write_file(path, "");
  EXPECT_EQ(read_file(path, 5).view(), "");
  for (const std::string& none :
       {folder.file("none"), folder.path(), std::string(), path + std::string("\0x", 2)}) {
    EXPECT_THROW(static_cast<void>(read_file(none, 5)), Refusal);
  }
}

}  // namespace
}  // namespace kova::admin
