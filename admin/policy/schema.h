// `kova-admin policy schema`: the JSON Schema of a policy file.
#pragma once

#include <string_view>

#include "admin/common/command_line.h"

namespace kova::admin {

/// The bytes of policy.schema.json. Generated at build time.
extern const std::string_view kPolicySchema;

[[nodiscard]] RunCommand add_policy_schema(CommandParser& parser);

}  // namespace kova::admin
