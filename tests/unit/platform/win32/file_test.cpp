#include "platform/file.h"

#include <gtest/gtest.h>

#include <string>

namespace kova {
namespace {

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

}  // namespace
}  // namespace kova
