// The lexical screen of kova_query against its rules over the pieces of a second tokenizer; and the
// terminator that is put behind what passes.
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
#include "fuzz/plain_sql.h"
#include "fuzz/require.h"
#include "policy/quick_select.h"
#include "tools/query_tool.h"

namespace {

using kova::fuzz::require;
using kova::fuzz::SqlPiece;

constexpr std::string_view kForbidden[] = {
    "INTO",    "INSERT",   "UPDATE",      "DELETE", "DROP",   "ALTER",  "CREATE", "EXEC",
    "EXECUTE", "CALL",     "RUN",         "LOAD",   "IMPORT", "EXPORT", "GRANT",  "REVOKE",
    "COMMIT",  "ROLLBACK", "TRANSACTION", "LOCK",   "UNLOCK", "SET",    "USE",    "LOGIN",
    "LOGOUT",  "SYNC",     "PROVIDER",    "ATTACH", "DETACH"};

bool plainly_passes(std::string_view sql) {
  using Kind = SqlPiece::Kind;
  if (sql.size() > kova::kStatementLimit) return false;
  std::size_t words = 0;
  bool ended = false;
  for (const SqlPiece& piece : kova::fuzz::pieces_of(sql)) {
    if (piece.kind == Kind::kBlank) continue;
    if (ended || piece.kind == Kind::kDashes || piece.kind == Kind::kOpenLiteral) return false;
    ended = piece.text == ";";
    if (piece.kind != Kind::kWord) continue;
    const std::string word = kova::fuzz::compared(piece.text);
    if (words++ == 0 && word != "SELECT") return false;
    if (std::find(std::begin(kForbidden), std::end(kForbidden), word) != std::end(kForbidden)) {
      return false;
    }
  }
  return words > 0;
}

void check_terminator(std::string_view sql) {
  static char text[kova::kStatementLimit + 2];
  std::memcpy(text, sql.data(), sql.size());
  text[sql.size()] = '\0';
  std::string_view trimmed(sql);
  while (!trimmed.empty() && kova::is_space(trimmed.back())) trimmed.remove_suffix(1);
  if (!kova::terminate_statement(text)) {
    require(trimmed.size() == kova::kStatementLimit, "only a full statement has no room");
    return;
  }
  const std::string_view after(text);
  require(trimmed.ends_with(';')
              ? after == sql
              : after.ends_with(';') && after.substr(0, after.size() - 1) == trimmed,
          "one terminator ends the statement");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  const bool passes = kova::quick_select_check(sql);
  require(passes == plainly_passes(sql), "the screen keeps its rules");
  if (passes && sql.find('\0') == std::string_view::npos) check_terminator(sql);
  return 0;
}
