// The checks whose inputs are parameters or the environment alone.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "admin/doctor/approval_check.h"
#include "admin/doctor/audit_check.h"
#include "admin/doctor/login_steps.h"
#include "admin/doctor/machine_check.h"
#include "admin/doctor/rights.h"
#include "admin/doctor/variables_check.h"
#include "support/environment.h"
#include "support/temporary_directory.h"

namespace kova::admin {
namespace {

using kova::testing::ScopedEnvironment;
using kova::testing::TemporaryDirectory;

TEST(CheckClock, EachState) {
  EXPECT_EQ(check_clock(ClockState::kSynchronised).status, CheckStatus::kOk);
  EXPECT_EQ(check_clock(ClockState::kNotSynchronised).status, CheckStatus::kWarn);
  EXPECT_EQ(check_clock(ClockState::kUnknown).status, CheckStatus::kWarn);
}

TEST(CheckLimits, AgainstSixteenSessions) {
  const auto status = [](std::uint64_t descriptors, std::uint64_t processes) {
    return check_limits({.descriptors = descriptors, .processes = processes}).status;
  };
  EXPECT_EQ(status(kNoLimit, kNoLimit), CheckStatus::kOk);
  EXPECT_EQ(status(128, 160), CheckStatus::kOk);
  EXPECT_EQ(status(127, 160), CheckStatus::kWarn);
  EXPECT_EQ(status(128, 159), CheckStatus::kWarn);
}

CheckStatus file_system_status(bool remote, bool in_memory, std::uint64_t free_bytes) {
  Findings findings("audit");
  judge_file_system(
      findings,
      {.name = "ext4", .is_remote = remote, .is_in_memory = in_memory, .free_bytes = free_bytes});
  return findings.finish().status;
}

TEST(JudgeFileSystem, RemoteVolatileAndFull) {
  constexpr std::uint64_t kMegabyte = 1 << 20;
  EXPECT_EQ(file_system_status(false, false, 256 * kMegabyte), CheckStatus::kOk);
  EXPECT_EQ(file_system_status(true, false, 256 * kMegabyte), CheckStatus::kWarn);
  EXPECT_EQ(file_system_status(false, true, 256 * kMegabyte), CheckStatus::kWarn);
  EXPECT_EQ(file_system_status(false, false, 256 * kMegabyte - 1), CheckStatus::kWarn);
  EXPECT_EQ(file_system_status(false, false, kMegabyte), CheckStatus::kWarn);
  EXPECT_EQ(file_system_status(false, false, kMegabyte - 1), CheckStatus::kFail);
}

TEST(LastRecordTime, OfTheLastWholeLine) {
  const std::string first = R"({"timestamp":"1970-01-01T00:00:01.500Z","tool":"a"})";
  const std::string second = R"({"timestamp":"1970-01-01T00:01:00.000Z","tool":"b"})";
  EXPECT_EQ(last_record_time(first + "\r\n"), 1500);
  EXPECT_EQ(last_record_time(first + "\r\n" + second + "\r\n"), 60000);
  EXPECT_EQ(last_record_time("cut off}\r\n" + second + "\r\n"), 60000);
  EXPECT_EQ(last_record_time(first + "\r\n" + second), 1500);
  EXPECT_FALSE(last_record_time(""));
  EXPECT_FALSE(last_record_time(first));
  EXPECT_FALSE(last_record_time("no record\r\n"));
  EXPECT_FALSE(last_record_time("{\"timestamp\":1}\r\n"));
  EXPECT_FALSE(last_record_time("[1]\r\n"));
}

TEST(WeaknessOf, SecretsThatWereNotDrawn) {
  EXPECT_EQ(weakness_of("5b1e0c7d9a3f42e68d70b2c4a6e8f013"), "");
  EXPECT_NE(weakness_of(std::string(64, 'a')), "");
  EXPECT_NE(weakness_of("abcdefgabcdefgabcdefgabcdefgabcdefg"), "");
  EXPECT_EQ(weakness_of("abcdefghabcdefghabcdefghabcdefgh"), "");
  EXPECT_NE(weakness_of("put the key here, 32 bytes or more"), "");
}

TEST(SpellingOf, WhatReadersWrite) {
  const char* const kVariable = "KOVA_MCP_DISABLE_WRITES";
  ScopedEnvironment variable(kVariable);
  EXPECT_EQ(spelling_of(kVariable), Spelling::kOff);
  for (const char* on : {"1", "true", "YES", "On"}) {
    variable.set(on);
    EXPECT_EQ(spelling_of(kVariable), Spelling::kOn) << on;
  }
  for (const char* off : {"0", "false", "NO", "Off"}) {
    variable.set(off);
    EXPECT_EQ(spelling_of(kVariable), Spelling::kOff) << off;
  }
  for (const char* unclear : {"01", "true ", "enable", "2"}) {
    variable.set(unclear);
    EXPECT_EQ(spelling_of(kVariable), Spelling::kUnclear) << unclear;
  }
}

TEST(SettingFault, NamesTheLimitAndNoSecret) {
  ScopedEnvironment password("KOVA_MCP_PASSWORD");
  EXPECT_EQ(setting_fault(LoginSetting::kPassword), "KOVA_MCP_PASSWORD is not set");
  password.set(std::string(256, 'p'));
  EXPECT_EQ(setting_fault(LoginSetting::kPassword),
            "KOVA_MCP_PASSWORD has 256 bytes, at most 255 are allowed");
  password.set("a;b");
  EXPECT_EQ(setting_fault(LoginSetting::kPassword), "KOVA_MCP_PASSWORD holds one of \";\"");
}

TEST(CheckApprovalDirectory, ATrialFileIsRemoved) {
  const TemporaryDirectory folder;
  const auto policy = std::make_unique<McpPolicy>();
  policy->valid = policy->configured = policy->writes_enabled = policy->approval_required = true;
  ASSERT_TRUE(TextOut(policy->approval_state_directory).copy(folder.path()));
  const Check check = check_approval_directory(*policy);
  EXPECT_NE(check.detail.find("markers are created once"), std::string::npos) << check.detail;
}

TEST(FolderOf, BothSeparatorsAndRoots) {
  EXPECT_EQ(folder_of("/a/b"), "/a");
  EXPECT_EQ(folder_of("/a"), "/");
  EXPECT_EQ(folder_of("/"), "/");
  EXPECT_EQ(folder_of("C:\\a\\b"), "C:\\a");
  EXPECT_EQ(folder_of("C:\\a"), "C:\\");
  EXPECT_EQ(folder_of("a"), "");
}

}  // namespace
}  // namespace kova::admin
