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
constexpr std::string_view kMemoryMessage = "MCP policy memory limit";
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

bool check_size(std::uint64_t bytes, TextOut error) {
  return (bytes > 0 && bytes <= kPolicyFileLimit) ||
         refuse(error, "MCP policy file size is invalid");
}

/// Sets the place of the byte at `offset`.
void set_place(std::string_view text, std::size_t offset, PolicyReading& reading) {
  const std::string_view before = slice(text, 0, offset);
  const std::size_t line_feed = before.rfind('\n');
  const std::size_t line_begin = line_feed == before.npos ? 0 : line_feed + 1;
  reading.line = 1 + static_cast<std::uint32_t>(std::count(before.begin(), before.end(), '\n'));
  reading.column = 1 + static_cast<std::uint32_t>(offset - line_begin);
}

/// Reads the members of one parsed policy file.
class PolicyReader {
 public:
  PolicyReader(const JsonDoc& doc, McpPolicy& policy) : doc_(doc), policy_(policy) {}

  /// Exactly the known keys, each at most once; keys are compared decoded here.
  [[nodiscard]] bool keys_are_known() const {
    bool seen[std::size(kKeys)] = {};
    JsonMembers members(doc_, 0);
    for (const JsonMember member : members) {
      key_ = member.key;
      char key[kSafeNameCapacity];
      if (!json_get_string(doc_, member.key, key)) return false;
      const auto* const known = std::find(std::begin(kKeys), std::end(kKeys), key);
      if (known == std::end(kKeys) || seen[known - std::begin(kKeys)]) return false;
      seen[known - std::begin(kKeys)] = true;
    }
    return members.well_formed();
  }

  /// The token of the key that was looked at last, negative when it is missing: after a refusal the
  /// one that is to blame.
  [[nodiscard]] int key() const { return key_; }

  [[nodiscard]] bool identity_and_version() {
    std::uint32_t version = 0;
    return json_get_unsigned(doc_, find("version"), version) && version == kVersion &&
           text("name", policy_.name) && policy_safe_name(policy_.name) &&
           text("client_id", policy_.client_id) && is_identity(policy_.client_id) &&
           text("database", policy_.database) && policy_safe_name(policy_.database) &&
           text("database_user", policy_.database_user) && is_identity(policy_.database_user);
  }

  /// Whether this process was launched with the policy's identity.
  [[nodiscard]] bool launch_identity() const {
    const EnvironmentValue client("KOVA_MCP_CLIENT_ID");
    const EnvironmentValue database("KOVA_MCP_DATABASE");
    const EnvironmentValue user("KOVA_MCP_USER");
    return is_launched("client_id", client, policy_.client_id) &&
           is_launched("database", database, policy_.database) &&
           is_launched("database_user", user, policy_.database_user);
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

  [[nodiscard]] int find(std::string_view key) const {
    const int value = json_find(doc_, 0, key);
    key_ = value - 1;
    return value;
  }

  [[nodiscard]] bool is_launched(std::string_view key, const EnvironmentValue& value,
                                 std::string_view wanted) const {
    if (equal_ignoring_case(value.view(), wanted)) return true;
    static_cast<void>(find(key));
    return false;
  }

  [[nodiscard]] bool text(std::string_view key, TextOut out) const {
    return json_get_string(doc_, find(key), out);
  }

  [[nodiscard]] bool flag(std::string_view key, bool& value) const {
    const int token = find(key);
    if (!doc_.is(token, JsonType::kPrimitive)) return false;
    value = doc_.raw(token) == "true";
    return value || doc_.raw(token) == "false";
  }

  /// Adds the names to a list that is empty.
  [[nodiscard]] bool list(std::string_view key, NameList& names) const {
    const int array = find(key);
    if (!doc_.is(array, JsonType::kArray)) return false;
    for (const int element : JsonElements(doc_, array)) {
      if (names.count == std::size(names.names)) return false;
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
  mutable int key_ = -1;
};

bool check_state_directory(const McpPolicy& policy, TextOut error) {
  if (!policy.writes_enabled || !policy.approval_required) return true;
  if (!is_canonical_path(policy.approval_state_directory)) {
    return refuse(error, "approval state directory must be absolute and canonical");
  }
  return is_directory(policy.approval_state_directory) ||
         refuse(error, "approval state directory does not exist");
}

bool read_members(PolicyReader& reader, const PolicyReading& reading, McpPolicy& policy,
                  TextOut error) {
  if (!reader.keys_are_known()) return refuse(error, kSchemaMessage);
  if (!reader.identity_and_version()) return refuse(error, kIdentityMessage);
  if (!reading.any_launch && !reader.launch_identity()) {
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
  return reading.any_machine || check_state_directory(policy, error);
}

bool load_text(std::string_view bytes, McpPolicy& policy, PolicyReading& reading, TextOut error) {
  std::string_view text = bytes;
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  const std::size_t skipped = bytes.size() - text.size();
  const int capacity = json_token_count(text, kPolicyTokenCapacity);
  const HeapArray<JsonToken> tokens(static_cast<std::size_t>(capacity));
  if (!tokens) return refuse(error, kMemoryMessage);
  JsonDoc doc;
  std::size_t stopped = 0;
  if (!json_parse(text, tokens.data(), capacity, doc, &stopped) || !doc.is(0, JsonType::kObject)) {
    set_place(bytes, skipped + stopped, reading);
    return refuse(error, kSchemaMessage);
  }
  PolicyReader reader(doc, policy);
  if (read_members(reader, reading, policy, error)) return true;
  if (reader.key() >= 0) {
    // A string's offset lies after its quotation mark.
    set_place(bytes, skipped + static_cast<std::size_t>(doc[reader.key()].start) - 1, reading);
  }
  return false;
}

bool load_file(const char* path, McpPolicy& policy, TextOut error) {
  if (std::string_view(path).size() >= kPathCapacity || !is_canonical_path(path)) {
    return refuse(error, "KOVA_MCP_POLICY must be an absolute canonical path");
  }
  InputFile file;
  if (!file.open(path)) return refuse(error, "MCP policy file cannot be opened");
  const std::uint64_t file_size = file.size();
  if (!check_size(file_size, error)) return false;
  const auto size = static_cast<std::size_t>(file_size);
  const HeapArray<char> bytes(size);
  if (!bytes) return refuse(error, kMemoryMessage);
  if (!file.read(bytes.data(), size)) return refuse(error, "MCP policy read failed");
  PolicyReading reading;
  return load_text({bytes.data(), size}, policy, reading, error);
}

/// What holds where a file says nothing.
void set_defaults(McpPolicy& policy) {
  policy = {};
  policy.reads_enabled = true;
  policy.provider_reads_enabled = true;
  policy.approval_ttl_seconds = kDefaultTtlSeconds;
}

}  // namespace

bool policy_load(McpPolicy& policy) {
  set_defaults(policy);
  const EnvironmentValue path("KOVA_MCP_POLICY");
  policy.configured = !path.view().empty();
  policy.valid = !policy.configured || load_file(path.c_str(), policy, policy.error);
  return policy.valid;
}

bool policy_read(std::string_view bytes, McpPolicy& policy, PolicyReading& reading) {
  set_defaults(policy);
  policy.configured = true;
  policy.valid =
      check_size(bytes.size(), policy.error) && load_text(bytes, policy, reading, policy.error);
  return policy.valid;
}

}  // namespace kova
