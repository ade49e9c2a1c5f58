#include "admin/bundle/manifest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "admin/common/json_output.h"

namespace kova::admin {
namespace {

Site site() {
  Site made;
  made.policy = "sales";
  made.client_id = "desk";
  made.database = "SALES";
  made.user = "reader";
  made.server = "db.example";
  made.port = "2300";
  return made;
}

Json manifest(const std::vector<System>& systems, const std::string& audit = {}) {
  return Json::parse(bundle_manifest(site(), systems, audit));
}

TEST(BundleManifest, OnlyThePasswordIsAsked) {
  const Json asked = manifest({System::kLinux}).at("user_config");
  ASSERT_EQ(asked.size(), 1U);
  const Json& password = asked.at("password");
  EXPECT_TRUE(password.at("sensitive").get<bool>());
  EXPECT_TRUE(password.at("required").get<bool>());
  EXPECT_FALSE(password.contains("default"));
}

TEST(BundleManifest, EachSystemHasItsOwnCommandAndPaths) {
  const Json both = manifest({System::kWindows, System::kLinux});
  EXPECT_EQ(both.at("compatibility").at("platforms"), (Json{"win32", "linux"}));
  const Json& overrides = both.at("server").at("mcp_config").at("platform_overrides");
  EXPECT_EQ(overrides.at("win32").at("command"), "${__dirname}/server/kova-mcp.exe");
  EXPECT_EQ(overrides.at("win32").at("env").at("KOVA_MCP_POLICY"), R"(${__dirname}\policy.json)");
  EXPECT_EQ(overrides.at("linux").at("command"), "/bin/sh");
  EXPECT_EQ(overrides.at("linux").at("args").back(), "${__dirname}/server/kova-mcp");
  EXPECT_EQ(overrides.at("linux").at("env").at("KOVA_MCP_POLICY"), "${__dirname}/policy.json");
}

TEST(BundleManifest, OfOneSystemSpeaksOfNoOther) {
  const std::string windows = bundle_manifest(site(), {System::kWindows}, "");
  EXPECT_EQ(windows.find("linux"), std::string::npos);
  EXPECT_EQ(windows.find("/bin/sh"), std::string::npos);
  EXPECT_EQ(Json::parse(windows).at("server").at("entry_point"), "server/kova-mcp.exe");
  const std::string linux_only = bundle_manifest(site(), {System::kLinux}, "");
  EXPECT_EQ(linux_only.find("win32"), std::string::npos);
  EXPECT_EQ(linux_only.find(".exe"), std::string::npos);
  EXPECT_EQ(Json::parse(linux_only).at("server").at("entry_point"), "server/kova-mcp");
}

TEST(BundleManifest, VariablesOfTheServer) {
  const Json plain = manifest({System::kLinux}).at("server").at("mcp_config").at("env");
  EXPECT_EQ(plain, (Json{{"KOVA_MCP_POLICY", "${__dirname}/policy.json"},
                         {"KOVA_MCP_CLIENT_ID", "desk"},
                         {"KOVA_MCP_DATABASE", "SALES"},
                         {"KOVA_MCP_USER", "reader"},
                         {"KOVA_MCP_PASSWORD", "${user_config.password}"},
                         {"KOVA_MCP_SERVER", "db.example"},
                         {"KOVA_MCP_PORT", "2300"},
                         {"KOVA_MCP_DISABLE_WRITES", "1"}}));
  Site stopped = site();
  stopped.providers_are_stopped = true;
  const Json more = Json::parse(bundle_manifest(stopped, {System::kLinux}, "${HOME}/calls.jsonl"))
                        .at("server")
                        .at("mcp_config")
                        .at("env");
  EXPECT_EQ(more.size(), plain.size() + 2);
  EXPECT_EQ(more.at("KOVA_MCP_DISABLE_PROVIDERS"), "1");
  EXPECT_EQ(more.at("KOVA_MCP_AUDIT"), "${HOME}/calls.jsonl");
}

}  // namespace
}  // namespace kova::admin
