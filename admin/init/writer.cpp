#include "admin/init/writer.h"

#include <fmt/format.h>

#include <filesystem>
#include <functional>
#include <memory>

#include "admin/common/refusal.h"
#include "admin/common/server_path.h"
#include "admin/doctor/probe_name.h"
#include "admin/doctor/rights.h"
#include "admin/init/texts.h"
#include "platform/environment_change.h"
#include "platform/file.h"
#include "platform/private_files.h"
#include "policy/policy.h"
#include "policy/policy_file.h"

namespace kova::admin {

namespace {

/// A folder beside the deployment's, removed with what is in it.
class Staging {
 public:
  explicit Staging(const Setup& setup) : path_(path_in(folder_of(setup.folder), probe_name())) {
    if (!make_private_folder(path_.c_str())) {
      throw Refusal(folder_of(setup.folder) + ": nothing can be written there");
    }
  }
  ~Staging() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string path_of(std::string_view name) const { return path_in(path_, name); }

 private:
  std::string path_;
};

std::vector<std::string> deployment_names() {
  return {kPolicyName, kEnvironmentName, kStateName, start_script_name(), kClientsName};
}

void write_new(const std::string& path, std::string_view bytes, FileUse use = FileUse::kData) {
  if (!write_private_file(path.c_str(), bytes, use)) throw Refusal(path + ": cannot be written");
}

void make_folder(const std::string& path) {
  if (!make_private_folder(path.c_str())) throw Refusal(path + ": cannot be made");
}

std::string pretty(const Json& document) {
  return document.dump(2) + "\n";
}

void set_variable(const char* name, const std::string& value) {
  if (!set_environment_variable(name, value.c_str())) {
    throw Refusal(fmt::format("{} cannot be set", name));
  }
}

/// The loader's message for the policy of a setup, empty when it loads.
std::string loader_message(const Staging& staging, const Setup& setup) {
  const std::string path = staging.path_of(kPolicyName);
  write_new(path, pretty(policy_document(setup, staging.path())));
  set_variable("KOVA_MCP_POLICY", path);
  set_variable("KOVA_MCP_CLIENT_ID", setup.client_id);
  set_variable("KOVA_MCP_DATABASE", setup.database);
  set_variable("KOVA_MCP_USER", setup.user);
  const auto policy = std::make_unique<McpPolicy>();
  const bool loaded = policy_load(*policy);
  std::filesystem::remove(path);
  return loaded ? std::string() : std::string(policy->error);
}

/// A setup that loads, but for the one value that is taken from another setup.
Setup plain_setup() {
  Setup setup;
  setup.name = setup.client_id = setup.database = setup.user = "A";
  setup.writes = true;
  return setup;
}

struct OptionValue {
  const char* option;
  std::function<void(Setup& to, const Setup& from)> copy;
};

// One value at a time, so that the loader's refusal can be told of its option.
const std::vector<OptionValue>& option_values() {
  static const std::vector<OptionValue> values = {
      {"--name", [](Setup& to, const Setup& from) { to.name = from.name; }},
      {"--client-id", [](Setup& to, const Setup& from) { to.client_id = from.client_id; }},
      {"--database", [](Setup& to, const Setup& from) { to.database = from.database; }},
      {"--user", [](Setup& to, const Setup& from) { to.user = from.user; }},
      {"--tables", [](Setup& to, const Setup& from) { to.tables = from.tables; }},
      {"--denied-columns",
       [](Setup& to, const Setup& from) { to.denied_columns = from.denied_columns; }},
      {"--collections", [](Setup& to, const Setup& from) { to.collections = from.collections; }},
      {"--write-tables", [](Setup& to, const Setup& from) { to.write_tables = from.write_tables; }},
  };
  return values;
}

void check_paths(const Setup& setup) {
  const std::string policy = path_in(setup.folder, kPolicyName);
  if (policy.size() >= kPathCapacity || !is_canonical_path(policy.c_str()) ||
      path_in(setup.folder, kAuditName).size() >= kPathCapacity) {
    throw Refusal(fmt::format("--folder {}: the path is too long or not canonical", setup.folder));
  }
}

void write_files(const Staging& staging, const Setup& setup) {
  const std::string own = own_executable();
  const std::string policy = pretty(policy_document(setup, path_in(setup.folder, kStateName)));
  write_new(staging.path_of(kPolicyName), policy);
  write_new(staging.path_of(kEnvironmentName), environment_text(setup, draw_secrets()).view());
  write_new(staging.path_of(start_script_name()), start_script(setup, own), FileUse::kProgram);
  make_folder(staging.path_of(kStateName));
  const std::string clients = staging.path_of(kClientsName);
  make_folder(clients);
  for (const ClientEntry& entry : client_entries(setup, own)) {
    write_new(path_in(clients, entry.file_name), pretty(entry.document));
  }
}

// The folder is there, for instance made by an installer: each file moves into it, and back when
// one cannot.
void move_each(const Staging& staging, const std::string& folder) {
  std::vector<std::string> moved;
  for (const std::string& name : deployment_names()) {
    if (move_without_replacing(staging.path_of(name).c_str(), path_in(folder, name).c_str())) {
      moved.push_back(name);
      continue;
    }
    for (const std::string& done : moved) {
      static_cast<void>(
          move_without_replacing(path_in(folder, done).c_str(), staging.path_of(done).c_str()));
    }
    throw Refusal(path_in(folder, name) + ": cannot be written");
  }
}

}  // namespace

void check_folder(const Setup& setup) {
  check_paths(setup);
  const std::string above = folder_of(setup.folder);
  if (!is_directory(above.c_str())) {
    throw Refusal(fmt::format("--folder {}: {} is no folder", setup.folder, above));
  }
  if (!path_exists(setup.folder.c_str())) return;
  if (!is_directory(setup.folder.c_str())) {
    throw Refusal(fmt::format("--folder {}: it is no folder", setup.folder));
  }
  for (const std::string& name : deployment_names()) {
    if (path_exists(path_in(setup.folder, name).c_str())) {
      throw Refusal(
          fmt::format("{} is there already; nothing is overwritten", path_in(setup.folder, name)));
    }
  }
}

void check_values(const Setup& setup) {
  const Staging staging(setup);
  for (const OptionValue& value : option_values()) {
    Setup one = plain_setup();
    value.copy(one, setup);
    if (const std::string message = loader_message(staging, one); !message.empty()) {
      throw Refusal(fmt::format("{}: {}", value.option, message));
    }
  }
  if (const std::string message = loader_message(staging, setup); !message.empty()) {
    throw Refusal(message);
  }
}

std::vector<std::string> write_deployment(const Setup& setup) {
  check_folder(setup);
  const Staging staging(setup);
  write_files(staging, setup);
  if (path_exists(setup.folder.c_str())) {
    move_each(staging, setup.folder);
  } else if (!move_without_replacing(staging.path().c_str(), setup.folder.c_str())) {
    throw Refusal(setup.folder + ": cannot be made");
  }
  return deployment_names();
}

}  // namespace kova::admin
