// The deployment that a command works on, in the environment of the process.
#include "admin/common/deployment.h"

#include <gtest/gtest.h>

#include <string>

#include "admin/common/refusal.h"
#include "platform/environment.h"
#include "support/environment.h"
#include "support/temporary_directory.h"

namespace kova::admin {
namespace {

using testing::ScopedEnvironment;

bool is_set(const char* name) {
  return EnvironmentValue(name).is_set();
}

class DeploymentFile : public ::testing::Test {
 protected:
  std::string write(const std::string& text) {
    testing::write_file(folder.file("env"), text);
    return folder.file("env");
  }

  testing::TemporaryDirectory folder;
  ScopedEnvironment own{"KOVA_MCP_DISABLE_WRITES", "own"};
  ScopedEnvironment user{"KOVA_MCP_USER"};
  ScopedEnvironment other{"KOVA_TEST_OTHER", "kept"};
  ScopedEnvironment journal{"KOVA_ADMIN_JOURNAL", "journal"};
};

TEST_F(DeploymentFile, TakesThePlaceOfTheServersVariables) {
  use_deployment(write("KOVA_MCP_USER=one\nKOVA_TEST_OTHER=changed\nKOVA_MCP_USER=two\n"));
  EXPECT_EQ(deployment_value("KOVA_MCP_USER"), "two");
  EXPECT_FALSE(is_set("KOVA_MCP_DISABLE_WRITES"));
  EXPECT_EQ(deployment_value("KOVA_TEST_OTHER"), "changed");
  EXPECT_EQ(deployment_value("KOVA_ADMIN_JOURNAL"), "journal");
}

TEST_F(DeploymentFile, WithoutOneNothingChanges) {
  use_deployment("");
  { const DeploymentInUse in_use(""); }
  EXPECT_EQ(deployment_value("KOVA_MCP_DISABLE_WRITES"), "own");
  EXPECT_FALSE(is_set("KOVA_MCP_USER"));
}

TEST_F(DeploymentFile, IsInUseUntilTheEndOfTheScope) {
  {
    const DeploymentInUse in_use(
        write("KOVA_MCP_USER=one\nKOVA_TEST_OTHER=changed\nKOVA_TEST_OTHER=again\n"));
    EXPECT_EQ(deployment_value("KOVA_MCP_USER"), "one");
    EXPECT_EQ(deployment_value("KOVA_TEST_OTHER"), "again");
    EXPECT_FALSE(is_set("KOVA_MCP_DISABLE_WRITES"));
  }
  EXPECT_EQ(deployment_value("KOVA_MCP_DISABLE_WRITES"), "own");
  EXPECT_EQ(deployment_value("KOVA_TEST_OTHER"), "kept");
  EXPECT_FALSE(is_set("KOVA_MCP_USER"));
}

TEST_F(DeploymentFile, OneThatIsWrongChangesNothing) {
  const std::string file = write("KOVA_MCP_USER=one\nwrong\n");
  EXPECT_THROW(use_deployment(file), Refusal);
  EXPECT_THROW(const DeploymentInUse in_use(file), Refusal);
  EXPECT_EQ(deployment_value("KOVA_MCP_DISABLE_WRITES"), "own");
  EXPECT_FALSE(is_set("KOVA_MCP_USER"));
}

}  // namespace
}  // namespace kova::admin
