// Each check of the report on deployments that differ in one thing: a table of states.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/common/times.h"
#include "admin/doctor/approval_check.h"
#include "admin/doctor/audit_check.h"
#include "admin/doctor/login_steps.h"
#include "admin/doctor/policy_check.h"
#include "admin/doctor/server_check.h"
#include "admin/doctor/variables_check.h"
#include "platform/private_files.h"
#include "support/environment.h"
#include "support/temporary_directory.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

using admin::Check;
using admin::CheckStatus;

constexpr std::string_view kSecret = "5b1e0c7d9a3f42e68d70b2c4a6e8f013";

/// The check has this status and name, advice where it is not ok, and tells of `said`.
void expect(const Check& check, std::string_view name, CheckStatus status, std::string_view said) {
  EXPECT_EQ(check.name, name);
  EXPECT_EQ(check.status, status) << check.detail;
  EXPECT_EQ(check.advice.empty(), status == CheckStatus::kOk) << check.advice;
  EXPECT_NE(check.detail.find(said), std::string::npos) << check.detail;
}

class EachCheck : public PolicyLoading {
 protected:
  Check policy_check(const PolicyDocument& document) {
    write_file(folder.file("policy.json"), document.text());
    path_variable.set(folder.file("policy.json"));
    return admin::check_policy(*policy);
  }
  PolicyDocument for_writes() {
    const std::string state = folder.file("state");
    EXPECT_TRUE(path_exists(state.c_str()) || make_private_folder(state.c_str()));
    return PolicyDocument().with_approved_writes(state);
  }

  ScopedEnvironment secret{"KOVA_MCP_APPROVAL_SECRET"};
  ScopedEnvironment audit{"KOVA_MCP_AUDIT"};
  ScopedEnvironment writes_switch{"KOVA_MCP_DISABLE_WRITES"};
  ScopedEnvironment providers_switch{"KOVA_MCP_DISABLE_PROVIDERS"};
  ScopedEnvironment token{"KOVA_MCP_HTTP_BEARER_TOKEN"};
  ScopedEnvironment hosts{"KOVA_MCP_HTTP_ALLOWED_HOSTS"};
  ScopedEnvironment origins{"KOVA_MCP_HTTP_ALLOWED_ORIGINS"};
  ScopedEnvironment rate{"KOVA_MCP_HTTP_RATE_PER_MINUTE"};
  ScopedEnvironment plaintext{"KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK"};
};

TEST_F(EachCheck, Policy) {
  expect(policy_check(PolicyDocument()), "policy", CheckStatus::kOk, "Demo_1: reads on, writes");
  expect(policy_check(for_writes()), "policy", CheckStatus::kOk, "writes on");
  expect(policy_check(for_writes().set("approval_required", "false")), "policy", CheckStatus::kWarn,
         "writes run without an operator's approval");
  expect(policy_check(PolicyDocument().set("approval_ttl_seconds", "29")), "policy",
         CheckStatus::kFail, kTtlMessage);
  user_variable.set("other");
  expect(policy_check(PolicyDocument()), "policy", CheckStatus::kFail,
         "KOVA_MCP_USER is \"other\", the policy's database_user is \"reader-1.x\"");
  user_variable.unset();
  expect(policy_check(PolicyDocument()), "policy", CheckStatus::kFail, "KOVA_MCP_USER is not set");
  path_variable.unset();
  expect(admin::check_policy(*policy), "policy", CheckStatus::kWarn, "KOVA_MCP_POLICY is not set");
}

TEST_F(EachCheck, ApprovalSecret) {
  const auto check = [&] { return admin::check_approval_secret(*policy, ""); };
  static_cast<void>(policy_check(PolicyDocument()));
  expect(check(), "approval.secret", CheckStatus::kOk, "not needed");
  static_cast<void>(policy_check(for_writes().set("database", R"("OTHER")")));
  expect(check(), "approval.secret", CheckStatus::kWarn, "not judged: the policy is refused");
  static_cast<void>(policy_check(for_writes()));
  expect(check(), "approval.secret", CheckStatus::kFail, "is not set");
  secret.set(kSecret.substr(1));
  expect(check(), "approval.secret", CheckStatus::kFail, "too short");
  secret.set(std::string(32, 'a'));
  expect(check(), "approval.secret", CheckStatus::kWarn, "few different characters");
  secret.set(kSecret);
  expect(check(), "approval.secret", CheckStatus::kOk, "32 bytes");
  EXPECT_EQ(check().detail.find(kSecret), std::string::npos);
}

TEST_F(EachCheck, ApprovalDirectory) {
  const auto check = [&] { return admin::check_approval_directory(*policy); };
  static_cast<void>(policy_check(PolicyDocument()));
  expect(check(), "approval.directory", CheckStatus::kOk, "not needed");
  static_cast<void>(policy_check(for_writes().set("database", R"("OTHER")")));
  expect(check(), "approval.directory", CheckStatus::kWarn, "not judged: the policy is refused");
  const std::string none = folder.file("none");
  expect(policy_check(PolicyDocument().with_approved_writes(none)), "policy", CheckStatus::kFail,
         kDirectoryMissingMessage);
  expect(check(), "approval.directory", CheckStatus::kFail, "does not exist");
  EXPECT_NE(check().detail.find(none), std::string::npos);
}

TEST_F(EachCheck, Audit) {
  const auto check = [] { return admin::check_audit(admin::now_ms()); };
  expect(check(), "audit", CheckStatus::kWarn, "KOVA_MCP_AUDIT is not set");
  audit.set("audit.jsonl");
  expect(check(), "audit", CheckStatus::kWarn, "no absolute path");
  audit.set(folder.file(std::string(kPathCapacity, 'a')));
  expect(check(), "audit", CheckStatus::kFail, "switch the audit off");
  audit.set(folder.file("none/audit.jsonl"));
  expect(check(), "audit", CheckStatus::kFail, "does not exist");
  audit.set(folder.path());
  expect(check(), "audit", CheckStatus::kFail, "cannot append");
  const std::string file = folder.file("audit.jsonl");
  audit.set(file);
  EXPECT_NE(check().detail.find("no record yet"), std::string::npos);
  EXPECT_FALSE(path_exists(file.c_str()));
  ASSERT_TRUE(write_private_file(
      file.c_str(), R"({"timestamp":")" + admin::time_text(admin::now_ms()) + "\"}\r\n",
      FileUse::kData));
  EXPECT_NE(check().detail.find("last record 0 seconds ago"), std::string::npos) << check().detail;
  write_file(file, "no record\n");
  EXPECT_NE(check().detail.find("its last line is no audit record"), std::string::npos);
}

TEST_F(EachCheck, Switches) {
  expect(admin::check_switches(), "switches", CheckStatus::kOk, "writes not stopped");
  writes_switch.set("1");
  expect(admin::check_switches(), "switches", CheckStatus::kOk, "writes stopped");
  writes_switch.set("ja");
  expect(admin::check_switches(), "switches", CheckStatus::kFail,
         "KOVA_MCP_DISABLE_WRITES is \"ja\" and stops nothing");
  writes_switch.unset();
  const ScopedEnvironment misspelled("KOVA_MCP_DISABLE_WRITE", "1");
  expect(admin::check_switches(), "switches", CheckStatus::kWarn,
         "the server does not know KOVA_MCP_DISABLE_WRITE");
}

TEST_F(EachCheck, Http) {
  expect(admin::check_http(), "http", CheckStatus::kOk, "not set up");
  rate.set("60");
  expect(admin::check_http(), "http", CheckStatus::kFail, "KOVA_MCP_HTTP_BEARER_TOKEN is not set");
  token.set(kSecret.substr(1));
  expect(admin::check_http(), "http", CheckStatus::kFail, "31 characters, 32 are needed");
  token.set(std::string(1017, 'a'));
  expect(admin::check_http(), "http", CheckStatus::kFail, "at most 1016");
  token.set(std::string(40, 'a'));
  expect(admin::check_http(), "http", CheckStatus::kWarn, "few different characters");
  token.set(kSecret);
  expect(admin::check_http(), "http", CheckStatus::kOk, "32 characters");
  const std::function<void()> changes[] = {
      [&] { rate.set("0"); },
      [&] { hosts.set("*.example"); },
      [&] { hosts.set(std::string(512, 'h')); },
      [&] { origins.set("a.example"); },
      [&] { plaintext.set("1"); },
      [&] { plaintext.set("2"); },
  };
  for (const auto& change : changes) {
    rate.unset();
    hosts.unset();
    origins.unset();
    plaintext.unset();
    change();
    EXPECT_EQ(admin::check_http().status, CheckStatus::kWarn) << admin::check_http().detail;
  }
  plaintext.unset();
  hosts.set(" , ");
  expect(admin::check_http(), "http", CheckStatus::kFail, "allows no host");
}

TEST_F(EachCheck, Server) {
  expect(admin::check_server(folder.file("none")), "server", CheckStatus::kFail, "does not exist");
  write_file(folder.file("text"), "no program");
  expect(admin::check_server(folder.file("text")), "server", CheckStatus::kFail, "does not run");
}

TEST_F(EachCheck, ClientLibrary) {
  std::string found = "former";
  expect(admin::check_client_library(folder.file("kova-mcp"), found), "client-library",
         CheckStatus::kFail, "neither beside the server");
  EXPECT_EQ(found, "");
  EXPECT_EQ(admin::checked_client_library(), nullptr);
}

TEST_F(EachCheck, Permissions) {
  EXPECT_EQ(admin::check_permissions({}).name, "permissions");
  expect(admin::check_permissions({}), "permissions", CheckStatus::kOk, "only their owners");
}

TEST_F(EachCheck, LoginStopsAtTheFirstStepThatFails) {
  const ScopedEnvironment server("KOVA_MCP_SERVER");
  const std::vector<Check> steps = admin::check_login(admin::checked_client_library);
  ASSERT_EQ(steps.size(), 1U);
  expect(steps[0], "login.settings", CheckStatus::kFail, "KOVA_MCP_SERVER is not set");
}

}  // namespace
}  // namespace kova::testing
