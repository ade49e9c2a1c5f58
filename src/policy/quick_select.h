// The lexical screen of kova_query, which comes before the policy's own check of a SELECT.
#pragma once

#include <string_view>

#include "policy/sql_words.h"

namespace kova {

/// One statement of at most kSqlLimit bytes that begins with SELECT, without a comment, an open
/// literal or a forbidden word. Text between double quotes is no literal here: its words count.
[[nodiscard]] bool quick_select_check(std::string_view sql, CheckTrace* trace = nullptr);

}  // namespace kova
