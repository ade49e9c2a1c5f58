// Where a token goes.
#include "admin/approve/token_output.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "support/captured_output.h"
#include "support/temporary_directory.h"

namespace kova::admin {
namespace {

using testing::read_file;
using testing::TemporaryDirectory;

bool exists(const std::string& path) {
  return std::filesystem::exists(path_of(path));
}

TEST(TokenOutput, WithoutAFileStandardOutputGetsIt) {
  testing::CapturedOutput captured;
  TokenOutput output("");
  output.reserve(6);
  output.write("token\n");
  EXPECT_EQ(captured.take(), "token\n");
}

TEST(TokenOutput, AFileGetsItAloneAndNothingElseDoes) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("t\xC3\xB6ken");
  {
    testing::CapturedOutput captured;
    TokenOutput output(path);
    EXPECT_FALSE(exists(path));
    output.reserve(6);
    EXPECT_EQ(read_file(path), "      ");
    output.write("token\n");
    EXPECT_EQ(captured.take(), "");
  }
  EXPECT_EQ(read_file(path), "token\n");
}

TEST(TokenOutput, AFileWithoutATokenIsRemoved) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("token");
  {
    TokenOutput output(path);
    output.reserve(6);
    EXPECT_TRUE(exists(path));
  }
  EXPECT_FALSE(exists(path));
  { const TokenOutput unused(path); }
  EXPECT_FALSE(exists(path));
}

std::string refusal_of(const std::string& path) {
  try {
    TokenOutput output(path);
    output.reserve(6);
  } catch (const Refusal& refusal) {
    return refusal.what();
  }
  return "accepted";
}

TEST(TokenOutput, AFileThatIsThereIsRefusedAtOnce) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("token");
  testing::write_file(path, "mine");
  EXPECT_EQ(refusal_of(path), path + ": the file for the token exists already or cannot be made");
  EXPECT_EQ(read_file(path), "mine");
  EXPECT_NE(refusal_of(folder.path()), "accepted");
}

TEST(TokenOutput, AFileThatComesBetweenIsNotReplaced) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("token");
  {
    TokenOutput output(path);
    testing::write_file(path, "mine");
    EXPECT_THROW(output.reserve(6), Refusal);
  }
  EXPECT_EQ(read_file(path), "mine");
}

TEST(TokenOutput, AFolderThatIsMissingIsRefusedBeforeADecision) {
  const TemporaryDirectory folder;
  const std::string path = folder.file("none/token");
  EXPECT_EQ(refusal_of(path), path + ": the file for the token cannot be made");
}

}  // namespace
}  // namespace kova::admin
