#include "admin/bundle/manifest.h"

#include <fmt/format.h>

#include "admin/bundle/bundle_texts.h"
#include "admin/common/json_output.h"

namespace kova::admin {

namespace {

constexpr SystemNames kWindowsNames = {.platform = "win32",
                                       .server = "server/kova-mcp.exe",
                                       .library = "server/kovadll.dll",
                                       .policy = R"(${__dirname}\policy.json)"};
constexpr SystemNames kLinuxNames = {.platform = "linux",
                                     .server = "server/kova-mcp",
                                     .library = "server/libkovadll.so",
                                     .policy = "${__dirname}/policy.json"};

Json environment(const Site& site, System system, const std::string& audit) {
  Json variables = {{"KOVA_MCP_POLICY", names_of(system).policy},
                    {"KOVA_MCP_CLIENT_ID", site.client_id},
                    {"KOVA_MCP_DATABASE", site.database},
                    {"KOVA_MCP_USER", site.user},
                    {"KOVA_MCP_PASSWORD", "${user_config.password}"},
                    {"KOVA_MCP_SERVER", site.server},
                    {"KOVA_MCP_PORT", site.port},
                    {"KOVA_MCP_DISABLE_WRITES", "1"}};
  if (site.providers_are_stopped) variables["KOVA_MCP_DISABLE_PROVIDERS"] = "1";
  if (!audit.empty()) variables["KOVA_MCP_AUDIT"] = audit;
  return variables;
}

Json server_entry(const Json& shared, const Site& site, const std::vector<System>& systems,
                  const std::string& audit) {
  Json server = shared;
  const SystemNames& first = names_of(systems.front());
  server["entry_point"] = first.server;
  Json& config = server["mcp_config"];
  config["command"] = fmt::format("${{__dirname}}/{}", first.server);
  config["env"] = environment(site, systems.front(), audit);
  Json overrides = Json::object();
  for (const System system : systems) {
    Json entry = config["platform_overrides"].at(names_of(system).platform);
    entry["env"] = environment(site, system, audit);
    overrides[names_of(system).platform] = std::move(entry);
  }
  config["platform_overrides"] = std::move(overrides);
  return server;
}

Json password_entry(const Site& site) {
  return {{"type", "string"},
          {"title", "Password"},
          {"description",
           fmt::format("The password of {} at the database {}. Some clients change a password that "
                       "holds a dollar sign",
                       site.user, site.database)},
          {"required", true},
          {"sensitive", true}};
}

}  // namespace

const SystemNames& names_of(System system) {
  return system == System::kWindows ? kWindowsNames : kLinuxNames;
}

std::string bundle_manifest(const Site& site, const std::vector<System>& systems,
                            const std::string& audit) {
  Json manifest = Json::parse(kManifestTemplate);
  // Several bundles can be installed beside one another.
  manifest["name"] = "kova-mcp-" + site.policy;
  manifest["display_name"] = fmt::format("kova-mcp: {}", site.policy);
  manifest["version"] = KOVA_VERSION;
  manifest["description"] =
      fmt::format("Reads the database {} under the policy {}.", site.database, site.policy);
  manifest["server"] = server_entry(manifest["server"], site, systems, audit);
  Json platforms = Json::array();
  for (const System system : systems) platforms.push_back(names_of(system).platform);
  manifest["compatibility"]["platforms"] = std::move(platforms);
  manifest["user_config"] = {{"password", password_entry(site)}};
  return manifest.dump(2) + '\n';
}

}  // namespace kova::admin
