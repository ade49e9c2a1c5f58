#include "admin/doctor/server_check.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "admin/doctor/rights.h"
#include "base/text.h"
#include "platform/client_library_name.h"
#include "platform/file.h"
#include "platform/library.h"
#include "platform/private_files.h"
#include "platform/program.h"

namespace kova::admin {

namespace {

using nlohmann::json;

constexpr std::uint32_t kServerTimeoutMs = 20000;
constexpr std::size_t kServerReplyCapacity = 8192;
constexpr std::size_t kPathTextCapacity = 4096;
constexpr std::string_view kServerName = "Vantreo MCP";

constexpr std::string_view kInitialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-11-25",)"
    R"("capabilities":{},"clientInfo":{"name":"kova-admin","version":"1"}}})"
    "\n";

constexpr std::string_view kNameTheServer =
    "name the server's executable by --server, or put it beside kova-admin";

/// The server's name and version; empty texts when it gives none.
struct Identity {
  std::string name;
  std::string version;
};

Identity identity_in(std::string_view reply) {
  const json document = json::parse(reply, nullptr, false);
  const json::json_pointer server("/result/serverInfo");
  if (document.is_discarded() || !document.contains(server)) return {};
  const json& info = document.at(server);
  if (!info.is_object()) return {};
  return {.name = info.value("name", ""), .version = info.value("version", "")};
}

ClientLibrary& checked_library() {
  static ClientLibrary library{};
  return library;
}

bool library_is_usable = false;

bool open_library(const std::string& server, Library& library) {
  const std::string folder = folder_of(server);
  return (!folder.empty() && library.open_in(folder, kClientLibraryName)) ||
         library.open_in_search_path(kClientLibraryName);
}

std::string missing_library(const std::string& server) {
  const std::string beside = folder_of(server) + kPathSeparator + kClientLibraryName;
  return path_exists(beside.c_str())
             ? fmt::format("{} is there and cannot be loaded", beside)
             : fmt::format("{} is neither beside the server in {} nor where the system looks",
                           kClientLibraryName, folder_of(server));
}

}  // namespace

Check check_server(const std::string& server) {
  Findings findings("server");
  if (!path_exists(server.c_str())) {
    findings.fail(fmt::format("{} does not exist", server), kNameTheServer);
    return findings.finish();
  }
  char reply[kServerReplyCapacity] = {};
  if (!ask_program(server.c_str(), kInitialize, reply, kServerTimeoutMs)) {
    findings.fail(fmt::format("{} does not run", server), kNameTheServer);
    return findings.finish();
  }
  const Identity identity = identity_in(reply);
  if (identity.name != kServerName) {
    findings.fail(fmt::format("{} is another program", server), kNameTheServer);
  } else {
    findings.note(fmt::format("{}, version {}", server, identity.version));
  }
  return findings.finish();
}

Check check_client_library(const std::string& server, std::string& found) {
  Findings findings("client-library");
  Library library;
  library_is_usable = false;
  found.clear();
  if (!open_library(server, library)) {
    findings.fail(missing_library(server),
                  "put the engine's client library for this system beside the server");
    return findings.finish();
  }
  char path[kPathTextCapacity];
  if (library.path(path)) found = path;
  const char* const missing = find_operations(library, checked_library());
  if (missing != nullptr) {
    findings.fail(fmt::format("{} has no operation {}", found, missing),
                  "install the engine's client library of the version that the server needs");
  } else {
    library_is_usable = true;
    findings.note(fmt::format("{}, all operations found", found));
  }
  return findings.finish();
}

const ClientLibrary* checked_client_library() {
  return library_is_usable ? &checked_library() : nullptr;
}

Check check_permissions(const DeploymentFiles& files) {
  Findings findings("permissions");
  const auto judge = [&](std::string_view what, const std::string& path, FolderUse use) {
    if (!path.empty() && path_exists(path.c_str())) judge_writers(findings, what, path, use);
  };
  judge("the server", files.server, FolderUse::kNobodyAdds);
  judge("kova-admin", files.admin, FolderUse::kNobodyAdds);
  judge("the client library", files.client_library, FolderUse::kNobodyAdds);
  judge("the policy", files.policy, FolderUse::kNobodyReplaces);
  judge("the environment file", files.environment, FolderUse::kNobodyReplaces);
  if (!files.environment.empty()) {
    judge_readers(findings, "the environment file", files.environment);
  }
  if (findings.is_ok()) {
    findings.note("only their owners and the administrator may change the files");
  }
  return findings.finish();
}

}  // namespace kova::admin
