// The policy: what one named client may do, loaded once from the file that KOVA_MCP_POLICY names
// and only read afterwards.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kova {

inline constexpr std::size_t kSafeNameCapacity = 64;
inline constexpr std::size_t kIdentityCapacity = 96;
inline constexpr std::size_t kStateDirectoryCapacity = 512;
inline constexpr std::size_t kPolicyErrorCapacity = 256;
/// A path of an environment variable must be shorter than this.
inline constexpr std::size_t kPathCapacity = 260;
inline constexpr std::size_t kPolicyFileLimit = 65536;
inline constexpr int kPolicyTokenCapacity = 1024;

/// Bits of `McpPolicy::write_type_mask`.
enum WriteType : std::uint32_t { kInsert = 1, kUpdate = 2, kDelete = 4 };

/// At most 64 safe names in file order, no two equal ignoring case.
struct NameList {
  static constexpr std::uint32_t kCapacity = 64;
  char names[kCapacity][kSafeNameCapacity];
  std::uint32_t count;
};

/// The policy record. Zero but for what policy_load sets.
struct McpPolicy {
  bool configured;  ///< a policy file is named, whether or not it could be loaded
  bool valid;       ///< the record may be used
  bool reads_enabled;
  bool provider_reads_enabled;
  bool writes_enabled;
  bool approval_required;
  std::uint32_t approval_ttl_seconds;
  std::uint32_t write_type_mask;
  char name[kSafeNameCapacity];
  char client_id[kIdentityCapacity];
  char database[kSafeNameCapacity];
  char database_user[kIdentityCapacity];
  char approval_state_directory[kStateDirectoryCapacity];
  NameList allowed_tables;
  NameList denied_columns;
  NameList allowed_collections;
  NameList write_tables;
  char error[kPolicyErrorCapacity];  ///< the message of the failed check
};

/// Fills the record from the environment and the file that it names. Without a file the record is
/// valid, unconfigured and has its defaults. False leaves it invalid, with the message of the
/// first check that failed in `error`. Called once, before anything is served.
[[nodiscard]] bool policy_load(McpPolicy& policy);

}  // namespace kova
