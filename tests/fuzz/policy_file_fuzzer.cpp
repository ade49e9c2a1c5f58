// A policy file against the rules of docs/policy.md, worked out over what RapidJSON reads: the same
// files load, with the same record, and every refusal has the message of the first rule. Files
// stand in memory here.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/json_mutator.h"
#include "fuzz/plain_json.h"
#include "fuzz/require.h"
#include "platform/file.h"
#include "policy/policy.h"
#include "policy/policy_file.h"

namespace {

std::string_view file_content;

constexpr char kPolicyPath[] = "/policy.json";
constexpr std::string_view kClient = "desk-7.client_A";
constexpr std::string_view kDatabase = "SHOP";
constexpr std::string_view kUser = "reader-1.x";

}  // namespace

// Stands in for platform/posix/file.cpp: one file and one folder, "/state".
namespace kova {

bool is_canonical_path(const char* path) {
  return path[0] == '/' && std::strstr(path, "..") == nullptr;
}

bool is_directory(const char* path) {
  return std::strcmp(path, "/state") == 0;
}

InputFile::~InputFile() = default;

bool InputFile::open(const char* path) {
  handle_ = 0;
  return std::strcmp(path, kPolicyPath) == 0;
}

std::uint64_t InputFile::size() const {
  return file_content.size();
}

bool InputFile::read(char* data, std::size_t size) {
  std::memcpy(data, file_content.data(), size);
  return true;
}

}  // namespace kova

namespace {

using kova::JsonType;
using kova::McpPolicy;
using kova::NameList;
using kova::fuzz::PlainToken;
using kova::fuzz::PlainTokens;
using kova::fuzz::require;
using kova::fuzz::Verdict;
using Names = std::vector<std::string>;

constexpr std::string_view kSchema = "MCP policy JSON/schema is invalid";
constexpr std::string_view kIdentity = "MCP policy identity/version is invalid";
constexpr std::string_view kLists = "MCP policy booleans or allowlists are invalid";

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

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  return result;
}

bool consists_of(std::string_view text, std::string_view also) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [also](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           also.find(c) != std::string_view::npos;
  });
}

/// The file by its rules.
class PlainPolicy {
 public:
  explicit PlainPolicy(const std::vector<PlainToken>& tokens) : tokens_(tokens) {}

  /// The message of the first rule that does not hold, or an empty text.
  std::string_view message() {
    if (tokens_[0].type != JsonType::kObject || !read_members()) return kSchema;
    if (!whole("version") || *whole("version") != 1 || !text("name", 63, "_", name) ||
        !text("client_id", 95, "_-.", client) || !text("database", 63, "_", database) ||
        !text("database_user", 95, "_-.", user)) {
      return kIdentity;
    }
    if (lower(client) != lower(kClient) || lower(database) != lower(kDatabase) ||
        lower(user) != lower(kUser)) {
      return "MCP launch identity does not match named policy";
    }
    for (std::size_t i = 0; i < std::size(flags); ++i) {
      if (!flag(kKeys[5 + i], flags[i])) return kLists;
    }
    for (std::size_t i = 0; i < std::size(lists); ++i) {
      if (!list(kKeys[9 + i], lists[i])) return kLists;
    }
    return message_of_the_rest();
  }

  std::string name, client, database, user, directory;
  bool flags[4] = {};
  Names lists[4];
  std::uint32_t types = 0, seconds = 0;

 private:
  std::string_view message_of_the_rest() {
    Names type_names;
    if (!list("write_types", type_names)) return "MCP write type list is invalid";
    for (const std::string& type : type_names) {
      constexpr std::string_view kTypes[] = {"insert", "update", "delete"};
      const auto* const found = std::find(std::begin(kTypes), std::end(kTypes), lower(type));
      if (found == std::end(kTypes)) return "unsupported MCP write type";
      types |= 1u << (found - std::begin(kTypes));
    }
    seconds = whole("approval_ttl_seconds").value_or(0);
    if (seconds < 30 || seconds > 900) return "approval TTL must be 30..900 seconds";
    if (!text("approval_state_directory", 511, directory)) {
      return "approval state directory is required";
    }
    if (!flags[2] || !flags[3]) return {};
    if (!kova::is_canonical_path(directory.c_str())) {
      return "approval state directory must be absolute and canonical";
    }
    return kova::is_directory(directory.c_str()) ? std::string_view()
                                                 : "approval state directory does not exist";
  }

  [[nodiscard]] std::size_t after(std::size_t index) const {
    std::size_t next = index + 1;
    for (int child = 0; child < tokens_[index].size; ++child) next = after(next);
    return next;
  }

  /// A decoded text of at most so many bytes ends at a NUL.
  static bool take(const PlainToken& token, std::size_t limit, std::string& text) {
    if (token.type != JsonType::kString || token.text.size() > limit) return false;
    text = token.text.c_str();
    return true;
  }

  bool read_members() {
    Names seen;
    for (std::size_t key = 1; key < tokens_.size(); key = after(key + 1)) {
      std::string text;
      if (!take(tokens_[key], 63, text) ||
          std::find(std::begin(kKeys), std::end(kKeys), text) == std::end(kKeys) ||
          std::find(seen.begin(), seen.end(), text) != seen.end()) {
        return false;
      }
      seen.push_back(text);
      keys_.push_back(key);
    }
    return true;
  }

  /// Escapes in a key hide its value.
  [[nodiscard]] const PlainToken* find(std::string_view key) const {
    for (const std::size_t at : keys_) {
      if (!tokens_[at].escaped && tokens_[at].text == key) return &tokens_[at + 1];
    }
    return nullptr;
  }

  [[nodiscard]] std::optional<std::uint32_t> whole(std::string_view key) const {
    const PlainToken* const token = find(key);
    return token == nullptr ? std::nullopt : token->whole;
  }
  [[nodiscard]] bool text(std::string_view key, std::size_t limit, std::string& out) const {
    const PlainToken* const token = find(key);
    return token != nullptr && take(*token, limit, out);
  }
  [[nodiscard]] bool text(std::string_view key, std::size_t limit, std::string_view also,
                          std::string& out) const {
    return text(key, limit, out) && consists_of(out, also);
  }
  [[nodiscard]] bool flag(std::string_view key, bool& out) const {
    const PlainToken* const token = find(key);
    if (token == nullptr || !token->flag) return false;
    out = *token->flag;
    return true;
  }
  [[nodiscard]] bool list(std::string_view key, Names& out) const {
    const PlainToken* const array = find(key);
    if (array == nullptr || array->type != JsonType::kArray || array->size > 64) return false;
    Names seen;
    // An element that has children is no string, which ends the walk.
    for (int i = 0; i < array->size; ++i) {
      std::string element;
      if (!take(array[1 + i], 63, element) || !consists_of(element, "_") ||
          std::find(seen.begin(), seen.end(), lower(element)) != seen.end()) {
        return false;
      }
      seen.push_back(lower(element));
      out.push_back(element);
    }
    return true;
  }

  const std::vector<PlainToken>& tokens_;
  std::vector<std::size_t> keys_;
};

bool same(const NameList& names, const Names& plain) {
  return names.count == plain.size() &&
         std::equal(plain.begin(), plain.end(), std::begin(names.names),
                    [](const std::string& one, const char* other) { return one == other; });
}

void check_record(const McpPolicy& policy, const PlainPolicy& plain) {
  require(policy.name == plain.name && policy.client_id == plain.client &&
              policy.database == plain.database && policy.database_user == plain.user &&
              policy.approval_state_directory == plain.directory,
          "the texts are those of the file");
  require(policy.reads_enabled == plain.flags[0] &&
              policy.provider_reads_enabled == plain.flags[1] &&
              policy.writes_enabled == plain.flags[2] && policy.approval_required == plain.flags[3],
          "the switches are those of the file");
  require(same(policy.allowed_tables, plain.lists[0]) &&
              same(policy.denied_columns, plain.lists[1]) &&
              same(policy.allowed_collections, plain.lists[2]) &&
              same(policy.write_tables, plain.lists[3]),
          "the lists are those of the file");
  require(policy.write_type_mask == plain.types && policy.approval_ttl_seconds == plain.seconds,
          "the write types and the lifetime are those of the file");
}

/// The verdict on a file with no escape of a surrogate and no number beyond a double.
void check_against_plain(std::string_view text, const McpPolicy& policy) {
  if (text.empty()) {
    require(policy.error == std::string_view("MCP policy file size is invalid"), "an empty file");
    return;
  }
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  bool surrogates = false;
  kova::fuzz::without_surrogates(text, surrogates);
  if (surrogates) return;
  PlainTokens plain(kova::kPolicyTokenCapacity);
  const Verdict verdict = plain.read(text);
  if (verdict == Verdict::kUnknown) return;
  if (verdict == Verdict::kMalformed) {
    require(policy.error == kSchema, "what is no JSON is refused");
    return;
  }
  PlainPolicy expected(plain.tokens());
  require(policy.error == expected.message(), "the first rule that does not hold is reported");
  if (policy.valid) check_record(policy, expected);
}

void set_up_environment() {
  setenv("KOVA_MCP_POLICY", kPolicyPath, 1);
  setenv("KOVA_MCP_CLIENT_ID", kClient.data(), 1);
  setenv("KOVA_MCP_DATABASE", kDatabase.data(), 1);
  setenv("KOVA_MCP_USER", kUser.data(), 1);
}

constexpr std::string_view kKeyTexts[] = {"\"version\"",
                                          "\"name\"",
                                          "\"client_id\"",
                                          "\"database\"",
                                          "\"database_user\"",
                                          "\"reads_enabled\"",
                                          "\"provider_reads_enabled\"",
                                          "\"writes_enabled\"",
                                          "\"approval_required\"",
                                          "\"allowed_tables\"",
                                          "\"denied_columns\"",
                                          "\"allowed_collections\"",
                                          "\"write_tables\"",
                                          "\"write_types\"",
                                          "\"approval_ttl_seconds\"",
                                          "\"approval_state_directory\"",
                                          "\"Version\"",
                                          "\"nam\\u0065\"",
                                          "\"name\\u0000\""};
constexpr std::string_view kValueTexts[] = {"1",
                                            "2",
                                            "29",
                                            "30",
                                            "900",
                                            "901",
                                            "true",
                                            "false",
                                            "\"SHOP\"",
                                            "\"shop\"",
                                            "\"reader-1.x\"",
                                            "\"desk-7.client_A\"",
                                            "\"Demo_1\"",
                                            "[]",
                                            "[\"ORDERS\",\"items\"]",
                                            "[\"a\",\"A\"]",
                                            "[\"INSERT\",\"update\",\"Delete\"]",
                                            "[\"MERGE\"]",
                                            "\"/state\"",
                                            "\"/none\"",
                                            "\"state\"",
                                            "\"SHOP\\u0000x\"",
                                            "[\"a\\u0000b\",\"a\"]",
                                            "[\"a b\"]",
                                            "[\"insert\"]"};

}  // namespace

constexpr kova::fuzz::JsonVocabulary kova::fuzz::kJsonVocabulary = {.keys = kKeyTexts,
                                                                    .values = kValueTexts};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool ready = [] {
    set_up_environment();
    return true;
  }();
  static McpPolicy policy;
  file_content = {reinterpret_cast<const char*>(data), size};
  const bool loaded = kova::policy_load(policy);
  require(policy.configured && policy.valid == loaded, "a named file configures");
  require(loaded == (policy.error[0] == '\0'), "a refusal has a message, and nothing else has one");
  check_against_plain(file_content, policy);
  return 0;
}
