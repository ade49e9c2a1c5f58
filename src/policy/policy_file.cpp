#include "policy/policy_file.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "base/ascii.h"
#include "base/heap_array.h"
#include "base/text.h"
#include "json/json.h"
#include "platform/environment.h"
#include "platform/file.h"
#include "policy/names.h"

namespace kova {

namespace {

constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kDefaultTtlSeconds = 300;
constexpr std::uint32_t kTtlMinimumSeconds = 30;
constexpr std::uint32_t kTtlLimitSeconds = 900;

constexpr std::string_view kSchemaMessage = "MCP policy JSON/schema is invalid";
constexpr std::string_view kIdentityMessage = "MCP policy identity/version is invalid";

constexpr std::string_view kKeys[] = {"version",
                                      "name",
                                      "client_id",
                                      "database",
                                      "database_user",
                                      "reads_enabled",
                                      "provider_reads_enabled",
                                      "writes_enabled",
                                      "approval_required",
                                      "allowed_tables",
                                      "denied_columns",
                                      "allowed_collections",
                                      "write_tables",
                                      "write_types",
                                      "approval_ttl_seconds",
                                      "approval_state_directory"};

/// The size of an open file that may be a policy, in bytes.
bool policy_size(const InputFile& file, std::size_t& size, TextOut error) {
  const std::uint64_t bytes = file.size();
  if (bytes == 0 || bytes > kPolicyFileLimit) {
    return refuse(error, "MCP policy file size is invalid");
  }
  size = static_cast<std::size_t>(bytes);
  return true;
}

/// Reads the members of one parsed policy file.
class PolicyReader {
 public:
  PolicyReader(const JsonDoc& doc, McpPolicy& policy) : doc_(doc), policy_(policy) {}

  /// An object of known keys, each at most once; keys are compared decoded here.
  [[nodiscard]] bool keys_are_known() const {
    bool seen[std::size(kKeys)] = {};
    JsonMembers members(doc_, 0);
    for (const JsonMember member : members) {
      char key[kSafeNameCapacity];
      if (!json_get_string(doc_, member.key, key)) return false;
      const auto* const known = std::find(std::begin(kKeys), std::end(kKeys), key);
      if (known == std::end(kKeys) || seen[known - std::begin(kKeys)]) return false;
      seen[known - std::begin(kKeys)] = true;
    }
    return members.well_formed();
  }

  [[nodiscard]] bool identity_and_version() {
    std::uint32_t version = 0;
    return json_get_unsigned(doc_, find("version"), version) && version == kVersion &&
           text("name", policy_.name) && policy_safe_name(policy_.name) &&
           text("client_id", policy_.client_id) && is_identity(policy_.client_id) &&
           text("database", policy_.database) && policy_safe_name(policy_.database) &&
           text("database_user", policy_.database_user) && is_identity(policy_.database_user);
  }

  [[nodiscard]] bool flags_and_lists() {
    return flag("reads_enabled", policy_.reads_enabled) &&
           flag("provider_reads_enabled", policy_.provider_reads_enabled) &&
           flag("writes_enabled", policy_.writes_enabled) &&
           flag("approval_required", policy_.approval_required) &&
           list("allowed_tables", policy_.allowed_tables) &&
           list("denied_columns", policy_.denied_columns) &&
           list("allowed_collections", policy_.allowed_collections) &&
           list("write_tables", policy_.write_tables);
  }

  [[nodiscard]] bool write_types(TextOut error) {
    NameList types{};
    if (!list("write_types", types)) return refuse(error, "MCP write type list is invalid");
    for (std::uint32_t i = 0; i < types.count; ++i) {
      const std::uint32_t bit = write_type_bit(types.names[i]);
      if (bit == 0) return refuse(error, "unsupported MCP write type");
      policy_.write_type_mask |= bit;
    }
    return true;
  }

  [[nodiscard]] bool approval_ttl() {
    std::uint32_t& seconds = policy_.approval_ttl_seconds;
    return json_get_unsigned(doc_, find("approval_ttl_seconds"), seconds) &&
           seconds >= kTtlMinimumSeconds && seconds <= kTtlLimitSeconds;
  }

  [[nodiscard]] bool approval_state_directory() {
    return text("approval_state_directory", policy_.approval_state_directory);
  }

 private:
  [[nodiscard]] static bool is_identity(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
      return is_word_byte(c) || c == '-' || c == '.';
    });
  }

  [[nodiscard]] static std::uint32_t write_type_bit(std::string_view type) {
    if (equal_ignoring_case(type, "INSERT")) return kInsert;
    if (equal_ignoring_case(type, "UPDATE")) return kUpdate;
    if (equal_ignoring_case(type, "DELETE")) return kDelete;
    return 0;
  }

  [[nodiscard]] int find(std::string_view key) const { return json_find(doc_, 0, key); }

  [[nodiscard]] bool text(std::string_view key, TextOut out) const {
    return json_get_string(doc_, find(key), out);
  }

  [[nodiscard]] bool flag(std::string_view key, bool& value) const {
    const int token = find(key);
    if (!doc_.is(token, JsonType::kPrimitive)) return false;
    value = doc_.raw(token) == "true";
    return value || doc_.raw(token) == "false";
  }

  [[nodiscard]] bool list(std::string_view key, NameList& names) const {
    const int array = find(key);
    if (!doc_.is(array, JsonType::kArray)) return false;
    for (const int element : JsonElements(doc_, array)) {
      if (names.count == NameList::kCapacity) return false;
      char(&name)[kSafeNameCapacity] = names.names[names.count];
      if (!json_get_string(doc_, element, name) || !policy_safe_name(name) ||
          policy_list_contains(names, name)) {
        return false;
      }
      ++names.count;
    }
    return true;
  }

  const JsonDoc& doc_;
  McpPolicy& policy_;
};

bool identity_matches(const McpPolicy& policy, const EnvironmentValue& client,
                      const EnvironmentValue& database, const EnvironmentValue& user) {
  return equal_ignoring_case(client.view(), policy.client_id) &&
         equal_ignoring_case(database.view(), policy.database) &&
         equal_ignoring_case(user.view(), policy.database_user);
}

bool check_state_directory(const McpPolicy& policy, TextOut error) {
  if (!policy.writes_enabled || !policy.approval_required) return true;
  if (!is_canonical_path(policy.approval_state_directory)) {
    return refuse(error, "approval state directory must be absolute and canonical");
  }
  return is_directory(policy.approval_state_directory) ||
         refuse(error, "approval state directory does not exist");
}

bool load_text(std::string_view text, McpPolicy& policy, TextOut error) {
  JsonToken tokens[kPolicyTokenCapacity];
  JsonDoc doc;
  if (!json_parse(text, tokens, kPolicyTokenCapacity, doc)) return refuse(error, kSchemaMessage);
  PolicyReader reader(doc, policy);
  if (!reader.keys_are_known()) return refuse(error, kSchemaMessage);
  if (!reader.identity_and_version()) return refuse(error, kIdentityMessage);
  const EnvironmentValue client("KOVA_MCP_CLIENT_ID");
  const EnvironmentValue database("KOVA_MCP_DATABASE");
  const EnvironmentValue user("KOVA_MCP_USER");
  if (!identity_matches(policy, client, database, user)) {
    return refuse(error, "MCP launch identity does not match named policy");
  }
  if (!reader.flags_and_lists()) {
    return refuse(error, "MCP policy booleans or allowlists are invalid");
  }
  if (!reader.write_types(error)) return false;
  if (!reader.approval_ttl()) return refuse(error, "approval TTL must be 30..900 seconds");
  if (!reader.approval_state_directory()) {
    return refuse(error, "approval state directory is required");
  }
  return check_state_directory(policy, error);
}

bool load_file(const char* path, McpPolicy& policy, TextOut error) {
  if (std::string_view(path).size() >= kPathCapacity || !is_canonical_path(path)) {
    return refuse(error, "KOVA_MCP_POLICY must be an absolute canonical path");
  }
  InputFile file;
  if (!file.open(path)) return refuse(error, "MCP policy file cannot be opened");
  std::size_t size = 0;
  if (!policy_size(file, size, error)) return false;
  const HeapArray<char> bytes(size);
  if (!bytes) return refuse(error, "MCP policy memory limit");
  if (!file.read(bytes.data(), size)) return refuse(error, "MCP policy read failed");
  std::string_view text(bytes.data(), size);
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  return load_text(text, policy, error);
}

}  // namespace

bool policy_load(McpPolicy& policy) {
  policy = {};
  policy.reads_enabled = true;
  policy.provider_reads_enabled = true;
  policy.approval_ttl_seconds = kDefaultTtlSeconds;
  const EnvironmentValue path("KOVA_MCP_POLICY");
  policy.configured = !path.view().empty();
  policy.valid = !policy.configured || load_file(path.c_str(), policy, policy.error);
  return policy.valid;
}

}  // namespace kova
