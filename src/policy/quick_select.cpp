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

}  // namespace

bool quick_select_check(std::string_view sql) {
  if (sql.size() > kSqlLimit) return false;
  bool first_word = true;
  for (std::size_t i = 0; i < sql.size();) {
    const char c = sql[i];
    if (c == '\'') {
      i = skip_literal(sql, i);
      if (i == sql.npos) return false;
    } else if (c == ';') {
      return !first_word && only_space_from(sql, i + 1);
    } else if (begins_comment(sql, i)) {
      return false;
    } else if (is_alpha(c) || c == '_') {
      char text[kWordCapacity];
      TextOut word(text);
      std::string_view rest = slice(sql, i);
      // There is one: it begins here.
      static_cast<void>(policy_next_word(rest, word));
      if (first_word && word.view() != "SELECT") return false;
      if (is_forbidden(word.view())) return false;
      first_word = false;
      i = sql.size() - rest.size();
    } else {
      ++i;
    }
  }
  return !first_word;
}

}  // namespace kova
