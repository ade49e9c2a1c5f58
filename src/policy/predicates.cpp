#include "policy/predicates.h"

#include <algorithm>

#include "base/ascii.h"
#include "platform/environment.h"

namespace kova {

bool policy_env_flag(const char* variable) {
  const EnvironmentValue value(variable);
  const std::string_view text = value.view();
  return text == "1" || equal_ignoring_case(text, "true") || equal_ignoring_case(text, "yes") ||
         equal_ignoring_case(text, "on");
}

bool policy_safe_name(std::string_view text) {
  return !text.empty() && text.size() < kSafeNameCapacity &&
         std::all_of(text.begin(), text.end(), is_word_byte);
}

bool policy_list_contains(const NameList& list, std::string_view name) {
  return std::any_of(list.names, list.names + list.count,
                     [&](const char* entry) { return equal_ignoring_case(entry, name); });
}

bool policy_table_allowed(const McpPolicy& policy, std::string_view name, TableUse use) {
  if (!policy.valid || !policy_safe_name(name)) return false;
  if (!policy.configured) return use == TableUse::kRead;
  if (use == TableUse::kWrite) return policy_list_contains(policy.write_tables, name);
  return policy.reads_enabled && policy_list_contains(policy.allowed_tables, name);
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
