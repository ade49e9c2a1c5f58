// A nonce is used up by its marker, or the write does not go through.
#include "approval/replay_marker.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "unit/approval/approval_fixture.h"

namespace kova::testing {
namespace {

class ReplayMarker : public Approvals {
 protected:
  bool consume(std::string_view nonce = kNonce) {
    TextOut(message).copy_cut(kUntouched);
    return consume_nonce(*policy, GuardedText(nonce).view(), message);
  }
  void expect_unavailable(std::string_view nonce = kNonce) {
    EXPECT_FALSE(consume(nonce));
    EXPECT_EQ(std::string_view(message), kUsed);
  }
};

TEST_F(ReplayMarker, IsAnEmptyFileOfTheNoncesName) {
  EXPECT_TRUE(consume());
  EXPECT_STREQ(message, kUntouched);
  EXPECT_EQ(markers(), std::vector<std::string>{kNonce + ".used"});
  EXPECT_TRUE(std::filesystem::is_regular_file(folder.file(kNonce + ".used")));
  EXPECT_EQ(std::filesystem::file_size(folder.file(kNonce + ".used")), 0U);
  expect_unavailable();
  EXPECT_TRUE(consume(std::string(32, 'f')));
}

// Whoever made it: what is there is not touched.
TEST_F(ReplayMarker, AFileOfTheNameUsesTheNonceUp) {
  write_file(folder.file(kNonce + ".used"), "someone's");
  expect_unavailable();
  EXPECT_EQ(read_file(folder.file(kNonce + ".used")), "someone's");
}

TEST_F(ReplayMarker, ADirectoryOfTheNameUsesTheNonceUp) {
  std::filesystem::create_directory(folder.file(kNonce + ".used"));
  expect_unavailable();
  EXPECT_TRUE(std::filesystem::is_directory(folder.file(kNonce + ".used")));
}

TEST_F(ReplayMarker, NeedsTheStateDirectory) {
  TextOut(policy->approval_state_directory).copy_cut(folder.file("gone"));
  expect_unavailable();
  // It is not made either.
  EXPECT_TRUE(markers().empty());
}

TEST_F(ReplayMarker, AFileInTheDirectorysPlaceIsNone) {
  write_file(folder.file("state"), "");
  TextOut(policy->approval_state_directory).copy_cut(folder.file("state"));
  expect_unavailable();
  EXPECT_EQ(read_file(folder.file("state")), "");
}

TEST_F(ReplayMarker, ADirectoryThatComesBackWorksAgain) {
  TextOut(policy->approval_state_directory).copy_cut(folder.file("state"));
  expect_unavailable();
  std::filesystem::create_directory(folder.file("state"));
  EXPECT_TRUE(consume());
  EXPECT_EQ(names_in(folder.file("state")), std::vector<std::string>{kNonce + ".used"});
}

// The path has 767 bytes at most, which no policy and no nonce reach.
TEST_F(ReplayMarker, APathThatDoesNotFitHasItsOwnMessage) {
  TextOut(policy->approval_state_directory).copy_cut(folder.path() + std::string(600, 'd'));
  const std::size_t room =
      767 - std::string(policy->approval_state_directory).size() - 1 - std::string(".used").size();
  expect_unavailable(std::string(room, 'n'));
  EXPECT_FALSE(consume(std::string(room + 1, 'n')));
  EXPECT_EQ(std::string_view(message), kBadPath);
  EXPECT_FALSE(consume(std::string(100000, 'n')));
  EXPECT_EQ(std::string_view(message), kBadPath);
  EXPECT_TRUE(markers().empty());
}

}  // namespace
}  // namespace kova::testing
