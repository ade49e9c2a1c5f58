#include "policy/predicates.h"

#include "base/ascii.h"
#include "platform/environment.h"

namespace kova {

bool policy_env_flag(const char* variable) {
  return means_yes(EnvironmentValue(variable).view());
}

bool policy_reads_allowed(const McpPolicy& policy) {
  return policy.valid && (!policy.configured || policy.reads_enabled);
}

bool policy_table_allowed(const McpPolicy& policy, std::string_view name, TableUse use) {
  if (!policy.valid || !policy_safe_name(name)) return false;
  if (!policy.configured) return use == TableUse::kRead;
  if (use == TableUse::kWrite) return policy_list_contains(policy.write_tables, name);
  return policy_reads_allowed(policy) && policy_list_contains(policy.allowed_tables, name);
}

bool policy_column_allowed(const McpPolicy& policy, std::string_view name) {
  if (!policy.valid || !policy_safe_name(name)) return false;
  return !policy.configured || !policy_list_contains(policy.denied_columns, name);
}

bool policy_collection_allowed(const McpPolicy& policy, std::string_view name) {
  if (!policy.valid || !policy_safe_name(name)) return false;
  return !policy.configured || policy_list_contains(policy.allowed_collections, name);
}

bool policy_provider_reads_allowed(const McpPolicy& policy) {
  return policy.valid && policy.provider_reads_enabled && !policy_env_flag(kDisableProviders);
}

bool policy_writes_allowed(const McpPolicy& policy) {
  return policy.valid && policy.configured && policy.writes_enabled &&
         policy.write_type_mask != 0 && policy.write_tables.count != 0 &&
         !policy_env_flag(kDisableWrites);
}

}  // namespace kova
