// Policy files and policy records for tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "policy/policy_file.h"
#include "support/environment.h"
#include "support/temporary_directory.h"

namespace kova::testing {

inline std::string json_literal(std::string_view text) {
  std::string literal = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') literal += '\\';
    literal += c;
  }
  return literal + "\"";
}

/// The members of a policy file as JSON texts; a valid read-only policy at first.
class PolicyDocument {
 public:
  PolicyDocument& set(const std::string& key, std::string json) {
    find(key)->second = std::move(json);
    return *this;
  }
  PolicyDocument& rename(const std::string& key, std::string raw_key) {
    find(key)->first = std::move(raw_key);
    return *this;
  }
  PolicyDocument& remove(const std::string& key) {
    members_.erase(find(key));
    return *this;
  }
  PolicyDocument& add(std::string raw_key, std::string json) {
    members_.emplace_back(std::move(raw_key), std::move(json));
    return *this;
  }
  PolicyDocument& reverse() {
    std::reverse(members_.begin(), members_.end());
    return *this;
  }
  /// Writes with approval enabled, their markers kept in this directory.
  PolicyDocument& with_approved_writes(std::string_view directory) {
    set("writes_enabled", "true").set("approval_required", "true");
    return set("approval_state_directory", json_literal(directory));
  }

  [[nodiscard]] std::string text() const {
    std::string text = "{";
    for (const auto& [key, json] : members_) {
      if (text.size() > 1) text += ",\n ";
      text += "\"" + key + "\": " + json;
    }
    return text + "}";
  }
  [[nodiscard]] std::vector<std::string> keys() const {
    std::vector<std::string> keys;
    for (const auto& member : members_) keys.push_back(member.first);
    return keys;
  }

 private:
  using Member = std::pair<std::string, std::string>;

  std::vector<Member>::iterator find(const std::string& key) {
    const auto found = std::find_if(members_.begin(), members_.end(),
                                    [&](const Member& member) { return member.first == key; });
    EXPECT_NE(found, members_.end()) << key;
    return found;
  }

  std::vector<Member> members_ = {
      {"version", "1"},
      {"name", "\"Demo_1\""},
      {"client_id", "\"desk-7.client_A\""},
      {"database", "\"SHOP\""},
      {"database_user", "\"reader-1.x\""},
      {"reads_enabled", "true"},
      {"provider_reads_enabled", "true"},
      {"writes_enabled", "false"},
      {"approval_required", "false"},
      {"allowed_tables", "[\"ORDERS\", \"items\"]"},
      {"denied_columns", "[\"SSN\"]"},
      {"allowed_collections", "[\"DOCS\"]"},
      {"write_tables", "[\"LOG\"]"},
      {"write_types", "[\"INSERT\"]"},
      {"approval_ttl_seconds", "120"},
      {"approval_state_directory", "\"\""},
  };
};

/// Loads policy files from a folder of their own, under the identity that PolicyDocument names.
class PolicyLoading : public ::testing::Test {
 protected:
  bool load() { return policy_load(*policy); }
  bool load_file(std::string_view path) {
    path_variable.set(path);
    return load();
  }
  bool load_text(std::string_view text) {
    const std::string path = folder.file("policy.json");
    write_file(path, text);
    return load_file(path);
  }
  bool load_document(const PolicyDocument& document) { return load_text(document.text()); }

  /// The last load refused the policy with this message.
  void expect_refusal(std::string_view message) const {
    EXPECT_STREQ(policy->error, std::string(message).c_str());
    EXPECT_TRUE(policy->configured);
    EXPECT_FALSE(policy->valid);
  }
  void expect_refused_text(std::string_view text, std::string_view message) {
    EXPECT_FALSE(load_text(text));
    expect_refusal(message);
  }
  void expect_refused(const PolicyDocument& document, std::string_view message) {
    expect_refused_text(document.text(), message);
  }
  void expect_loaded_text(std::string_view text) {
    EXPECT_TRUE(load_text(text));
    EXPECT_STREQ(policy->error, "");
    EXPECT_TRUE(policy->configured);
    EXPECT_TRUE(policy->valid);
  }
  void expect_loaded(const PolicyDocument& document) { expect_loaded_text(document.text()); }

  TemporaryDirectory folder;
  ScopedEnvironment path_variable{"KOVA_MCP_POLICY"};
  ScopedEnvironment client_variable{"KOVA_MCP_CLIENT_ID", "desk-7.client_A"};
  ScopedEnvironment database_variable{"KOVA_MCP_DATABASE", "SHOP"};
  ScopedEnvironment user_variable{"KOVA_MCP_USER", "reader-1.x"};
  std::unique_ptr<McpPolicy> policy = std::make_unique<McpPolicy>();
};

inline constexpr std::string_view kPathMessage =
    "KOVA_MCP_POLICY must be an absolute canonical path";
inline constexpr std::string_view kOpenMessage = "MCP policy file cannot be opened";
inline constexpr std::string_view kSizeMessage = "MCP policy file size is invalid";
inline constexpr std::string_view kMemoryMessage = "MCP policy memory limit";
inline constexpr std::string_view kReadMessage = "MCP policy read failed";
inline constexpr std::string_view kSchemaMessage = "MCP policy JSON/schema is invalid";
inline constexpr std::string_view kIdentityMessage = "MCP policy identity/version is invalid";
inline constexpr std::string_view kLaunchMessage =
    "MCP launch identity does not match named policy";
inline constexpr std::string_view kListMessage = "MCP policy booleans or allowlists are invalid";
inline constexpr std::string_view kWriteListMessage = "MCP write type list is invalid";
inline constexpr std::string_view kWriteTypeMessage = "unsupported MCP write type";
inline constexpr std::string_view kTtlMessage = "approval TTL must be 30..900 seconds";
inline constexpr std::string_view kDirectoryRequiredMessage =
    "approval state directory is required";
inline constexpr std::string_view kDirectoryPathMessage =
    "approval state directory must be absolute and canonical";
inline constexpr std::string_view kDirectoryMissingMessage =
    "approval state directory does not exist";

inline void fill(NameList& list, std::initializer_list<std::string_view> names) {
  list.count = 0;
  for (const std::string_view name : names) TextOut(list.names[list.count++]).copy_cut(name);
}

/// A loaded record: reads on, ORDERS and items readable, SSN denied, DOCS searchable, LOG
/// writable once writes are enabled.
inline std::unique_ptr<McpPolicy> loaded_policy() {
  auto policy = std::make_unique<McpPolicy>();
  policy->configured = true;
  policy->valid = true;
  policy->reads_enabled = true;
  policy->provider_reads_enabled = true;
  policy->approval_ttl_seconds = 300;
  policy->write_type_mask = kInsert;
  TextOut(policy->name).copy_cut("Demo_1");
  TextOut(policy->database).copy_cut("SHOP");
  fill(policy->allowed_tables, {"ORDERS", "items"});
  fill(policy->denied_columns, {"SSN"});
  fill(policy->allowed_collections, {"DOCS"});
  fill(policy->write_tables, {"LOG"});
  return policy;
}

/// The record when no policy file is named.
inline std::unique_ptr<McpPolicy> no_policy() {
  auto policy = std::make_unique<McpPolicy>();
  policy->valid = true;
  policy->reads_enabled = true;
  policy->provider_reads_enabled = true;
  policy->approval_ttl_seconds = 300;
  return policy;
}

}  // namespace kova::testing
