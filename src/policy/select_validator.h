// The policy's check of a SELECT: a lexical one, by words and a few punctuation marks. What it
// accepts although a reader may be surprised is listed in docs/security-model.md.
#pragma once

#include <string_view>

#include "base/text.h"
#include "policy/policy.h"
#include "policy/sql_words.h"

namespace kova {

/// Whether the statement is a plain SELECT on allowed tables that names no denied column. False
/// writes the message of the first check that failed. Without a policy file every text passes.
[[nodiscard]] bool policy_validate_select(const McpPolicy& policy, std::string_view sql,
                                          TextOut message, CheckTrace* trace = nullptr);

}  // namespace kova
