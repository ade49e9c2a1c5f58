#include "policy/quick_select.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "base/ascii.h"
#include "base/text.h"
#include "policy/sql_words.h"

namespace kova {

namespace {

constexpr std::string_view kForbiddenWords[] = {
    "INTO",    "INSERT",   "UPDATE",      "DELETE", "DROP",   "ALTER",  "CREATE", "EXEC",
    "EXECUTE", "CALL",     "RUN",         "LOAD",   "IMPORT", "EXPORT", "GRANT",  "REVOKE",
    "COMMIT",  "ROLLBACK", "TRANSACTION", "LOCK",   "UNLOCK", "SET",    "USE",    "LOGIN",
    "LOGOUT",  "SYNC",     "PROVIDER",    "ATTACH", "DETACH"};

bool is_forbidden(std::string_view word) {
  return std::find(std::begin(kForbiddenWords), std::end(kForbiddenWords), word) !=
         std::end(kForbiddenWords);
}

bool refuse_at(CheckTrace* trace, std::string_view check,
               std::size_t offset = CheckTrace::kNowhere) {
  trace_check(trace, check, offset);
  return false;
}

}  // namespace

bool quick_select_check(std::string_view sql, CheckTrace* trace) {
  if (sql.empty() || sql.size() > kSqlLimit) return refuse_at(trace, "screen-size");
  bool first_word = true;
  for (std::size_t i = 0; i < sql.size();) {
    const char c = sql[i];
    if (c == '\'') {
      const std::size_t open = i;
      i = skip_literal(sql, i);
      if (i == sql.npos) return refuse_at(trace, "screen-open-literal", open);
    } else if (c == ';') {
      return (!first_word && only_space_from(sql, i + 1)) ||
             refuse_at(trace, "screen-one-statement", i);
    } else if (begins_comment(sql, i)) {
      return refuse_at(trace, "screen-comment", i);
    } else if (is_alpha(c) || c == '_') {
      char text[kWordCapacity];
      TextOut word(text);
      std::string_view rest = slice(sql, i);
      if (!policy_next_word(rest, word)) return false;
      if (first_word && word.view() != "SELECT") return refuse_at(trace, "screen-select-only", i);
      if (is_forbidden(word.view())) return refuse_at(trace, "screen-forbidden-word", i);
      first_word = false;
      i = sql.size() - rest.size();
    } else {
      ++i;
    }
  }
  return !first_word || refuse_at(trace, "screen-select-only");
}

}  // namespace kova
