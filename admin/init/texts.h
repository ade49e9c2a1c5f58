// The texts of a new deployment's files.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/common/json_output.h"
#include "admin/common/secret_text.h"
#include "admin/init/setup.h"

namespace kova::admin {

/// The files and folders of a deployment, by their names in its folder.
inline constexpr char kPolicyName[] = "policy.json";
inline constexpr char kEnvironmentName[] = "kova-mcp.env";
inline constexpr char kStateName[] = "approvals";
inline constexpr char kClientsName[] = "clients";
inline constexpr char kAuditName[] = "audit.jsonl";
inline constexpr char kJournalName[] = "journal.jsonl";

/// The start script's name on this platform.
[[nodiscard]] std::string start_script_name();

/// The path of a file in a folder.
[[nodiscard]] std::string path_in(const std::string& folder, std::string_view name);

/// The policy document, which names `state_directory`.
[[nodiscard]] Json policy_document(const Setup& setup, const std::string& state_directory);

/// The secrets that a deployment draws for itself.
struct DrawnSecrets {
  SecretText approval;
  SecretText bearer_token;
};

/// 32 random bytes each, in hexadecimal digits. Throws Refusal without random bytes.
[[nodiscard]] DrawnSecrets draw_secrets();

/// The environment file. Throws Refusal for a value that no line can hold.
[[nodiscard]] SecretText environment_text(const Setup& setup, const DrawnSecrets& secrets);

/// A value as the right side of a line of an environment file.
[[nodiscard]] SecretText quoted_value(std::string_view value);

/// The script that starts the server of the setup, by the executable of this program.
[[nodiscard]] std::string start_script(const Setup& setup, const std::string& own_executable);

/// A client's entry: the file's name, and what is pasted into the client's configuration.
struct ClientEntry {
  std::string file_name;
  Json document;
};

[[nodiscard]] std::vector<ClientEntry> client_entries(const Setup& setup,
                                                      const std::string& own_executable);

}  // namespace kova::admin
