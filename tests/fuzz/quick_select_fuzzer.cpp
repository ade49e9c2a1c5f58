// The lexical screen of kova_query: what passes is one statement, begins with SELECT and holds no
// comment and no forbidden word; and the terminator is put behind it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/ascii.h"
#include "db/statement.h"
#include "fuzz/require.h"
#include "fuzz/statement_words.h"
#include "policy/quick_select.h"
#include "policy/sql_words.h"
#include "tools/query_tool.h"

namespace {

using kova::fuzz::require;

constexpr std::string_view kForbidden[] = {
    "INTO",    "INSERT",   "UPDATE",      "DELETE", "DROP",   "ALTER",  "CREATE", "EXEC",
    "EXECUTE", "CALL",     "RUN",         "LOAD",   "IMPORT", "EXPORT", "GRANT",  "REVOKE",
    "COMMIT",  "ROLLBACK", "TRANSACTION", "LOCK",   "UNLOCK", "SET",    "USE",    "LOGIN",
    "LOGOUT",  "SYNC",     "PROVIDER",    "ATTACH", "DETACH"};

void check_accepted(std::string_view sql) {
  require(!sql.empty() && sql.size() <= kova::kStatementLimit, "the size limit holds");
  const std::vector<std::string> words = kova::fuzz::words_of(sql);
  require(!words.empty() && words[0] == "SELECT", "the first word is SELECT");
  for (const std::string& word : words) {
    require(std::find(std::begin(kForbidden), std::end(kForbidden), word) == std::end(kForbidden),
            "no forbidden word passes");
  }
  for (std::size_t i = 0; i < sql.size(); ++i) {
    if (sql[i] == '\'') {
      const std::size_t after = kova::skip_literal(sql, i);
      require(after != std::string_view::npos, "every literal ends");
      i = after - 1;
    } else if (sql[i] == ';') {
      require(
          std::all_of(sql.begin() + static_cast<std::ptrdiff_t>(i) + 1, sql.end(), kova::is_space),
          "nothing follows the statement");
    } else {
      require(!kova::begins_comment(sql, i), "no comment passes");
    }
  }
}

void check_terminator(std::string_view sql) {
  const std::unique_ptr<char[]> text(new char[kova::kStatementLimit + 2]);
  std::memcpy(text.get(), sql.data(), sql.size());
  text[sql.size()] = '\0';
  const std::string before(text.get());
  if (!kova::terminate_statement(text.get())) {
    require(before.size() == kova::kStatementLimit, "only a full statement has no room");
    return;
  }
  const std::string after(text.get());
  std::string_view trimmed(before);
  while (!trimmed.empty() && kova::is_space(trimmed.back())) trimmed.remove_suffix(1);
  require(trimmed.ends_with(';') ? after == before : after == std::string(trimmed) + ";",
          "one terminator ends the statement");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  if (!kova::quick_select_check(sql)) return 0;
  check_accepted(sql);
  if (std::memchr(data, '\0', size) == nullptr) check_terminator(sql);
  return 0;
}
