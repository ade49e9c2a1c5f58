// Asking another executable something; the executable is the test program itself.
#include "platform/program.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/own_path.h"
#include "support/child_modes.h"
#include "support/environment.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::ScopedEnvironment;

constexpr std::uint32_t kEnough = 60000;

class AskProgram : public ::testing::Test {
 protected:
  AskProgram() { EXPECT_TRUE(own_path(path_)); }

  bool ask(std::string_view mode, std::string_view input, std::uint32_t timeout_ms = kEnough) {
    const ScopedEnvironment behaviour(testing::kProgramMode, mode);
    return ask_program(path_, input, output, timeout_ms);
  }

  char output[64] = {};

 private:
  char path_[4096] = {};
};

TEST_F(AskProgram, TakesInputAndGivesOutput) {
  EXPECT_TRUE(ask(testing::kChildEcho, "one\r\ntwo\n"));
  EXPECT_STREQ(output, "one\r\ntwo\n");
  EXPECT_TRUE(ask(testing::kWorkerSilent, "one"));
}

TEST_F(AskProgram, AnExitCodeThatIsNotZeroIsAFailure) {
  EXPECT_FALSE(ask(testing::kChildExit7, ""));
  EXPECT_FALSE(ask(testing::kWorkerReplyThenFail, "one"));
}

TEST_F(AskProgram, OutputFitsOrIsAFailure) {
  const std::string most(sizeof output - 1, 'm');
  EXPECT_TRUE(ask(testing::kChildEcho, most));
  EXPECT_EQ(output, most);
  EXPECT_FALSE(ask(testing::kChildEcho, most + "m"));
  EXPECT_FALSE(ask(testing::kChildLong, ""));
}

TEST_F(AskProgram, OneThatDoesNotEndIsEnded) {
  EXPECT_FALSE(ask(testing::kChildHang, "", 50));
  EXPECT_FALSE(ask(testing::kWorkerReplyThenHang, "one", 50));
}

TEST_F(AskProgram, WhatIsNoProgramIsNotStarted) {
  const testing::TemporaryDirectory folder;
  testing::write_file(folder.file("text"), "no program\n");
  EXPECT_FALSE(ask_program(folder.file("text").c_str(), "", output, kEnough));
  EXPECT_FALSE(ask_program(folder.file("none").c_str(), "", output, kEnough));
  EXPECT_FALSE(ask_program(folder.path().c_str(), "", output, kEnough));
}

TEST(BecomeProgram, WhatIsNoProgramDoesNotTakeTheProcesssPlace) {
  const testing::TemporaryDirectory folder;
  EXPECT_EQ(become_program(folder.file("none").c_str(), nullptr, nullptr), -1);
  EXPECT_EQ(become_program(folder.file("none").c_str(), "--http", "8080"), -1);
}

}  // namespace
}  // namespace kova
