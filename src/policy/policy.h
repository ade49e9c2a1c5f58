// The policy record: what one named client may do.
//
//   if (!policy_load(policy)) return refuse(message, policy.error);   // policy_file.h, at start-up
//   if (!policy_table_allowed(policy, "ORDERS", TableUse::kRead)) ... // predicates.h, per question
#pragma once

#include <cstddef>
#include <cstdint>

#include "policy/names.h"

namespace kova {

// Capacities of texts, their terminators included.
inline constexpr std::size_t kIdentityCapacity = 96;
inline constexpr std::size_t kStateDirectoryCapacity = 512;
inline constexpr std::size_t kPolicyErrorCapacity = 256;
/// A path that an environment variable names.
inline constexpr std::size_t kPathCapacity = 260;

/// Bits of `McpPolicy::write_type_mask`.
enum WriteType : std::uint32_t { kInsert = 1, kUpdate = 2, kDelete = 4 };

/// Written once by policy_load before anything is served, only read afterwards.
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
  char error[kPolicyErrorCapacity];  ///< the message of the check that failed
};

}  // namespace kova
