// The policy's check of a SELECT against its rules, worked out over the pieces of a second
// tokenizer: the same statements pass, and every refusal has the message of the first rule.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/plain_sql.h"
#include "fuzz/require.h"
#include "policy/policy.h"
#include "policy/select_validator.h"

namespace {

using kova::fuzz::require;
using kova::fuzz::SqlPiece;
using Kind = kova::fuzz::SqlPiece::Kind;
using Pieces = std::vector<SqlPiece>;

constexpr std::string_view kPasses;

kova::McpPolicy make_policy() {
  kova::McpPolicy policy{};
  policy.configured = true;
  policy.valid = true;
  policy.reads_enabled = true;
  std::strcpy(policy.allowed_tables.names[0], "packages");
  std::strcpy(policy.allowed_tables.names[1], "T");
  policy.allowed_tables.count = 2;
  std::strcpy(policy.denied_columns.names[0], "Maintainer");
  std::strcpy(policy.denied_columns.names[1], "ssn");
  policy.denied_columns.count = 2;
  return policy;
}

bool is_one_of(std::string_view word, std::initializer_list<std::string_view> words) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

std::string_view lexical_message(const Pieces& pieces) {
  int open = 0;
  for (const SqlPiece& piece : pieces) {
    if (piece.kind == Kind::kDashes) return "comments are not allowed in policy SQL";
    if (piece.kind == Kind::kOpenLiteral) return "unterminated SQL literal or parentheses";
    open += piece.text == "(" ? 1 : piece.text == ")" ? -1 : 0;
    if (open < 0) return "unbalanced SQL parentheses";
  }
  return open == 0 ? kPasses : "unterminated SQL literal or parentheses";
}

bool is_before_comma(const Pieces& pieces, std::size_t index) {
  do ++index;
  while (index < pieces.size() && pieces[index].kind == Kind::kBlank);
  return index < pieces.size() && pieces[index].text == ",";
}

/// Where a word stands, as far as the rules about tables ask.
enum class Place { kFirst, kAnywhere, kTableList, kTable };

std::string_view structure_message(const Pieces& pieces) {
  Place place = Place::kFirst;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (pieces[i].kind != Kind::kWord) continue;
    const std::string word = kova::fuzz::compared(pieces[i].text);
    if (place == Place::kFirst) {
      if (word != "SELECT") return "policy accepts SELECT only";
      place = Place::kAnywhere;
    } else if (is_one_of(word, {"SELECT", "UNION"})) {
      return "subqueries and UNION are not enabled by this policy version";
    } else if (is_one_of(word, {"FROM", "JOIN"})) {
      place = Place::kTable;
    } else if (is_one_of(word, {"WHERE", "GROUP", "ORDER", "HAVING"})) {
      place = Place::kAnywhere;
    } else if (place == Place::kTable) {
      if (!is_one_of(word, {"PACKAGES", "T"})) return "table is not allowed by MCP policy";
      place = Place::kTableList;
    } else if (place == Place::kTableList && is_before_comma(pieces, i)) {
      place = Place::kTable;
    }
  }
  return kPasses;
}

std::string_view wildcard_message(const Pieces& pieces) {
  for (const SqlPiece& piece : pieces) {
    if (piece.text == "*") return "wildcard projection is denied when columns are restricted";
    if (piece.kind != Kind::kWord || piece.text.size() < 4) continue;
    if (kova::fuzz::compared(piece.text.substr(piece.text.size() - 4)) == "FROM") break;
  }
  return kPasses;
}

/// The message of the first rule that does not hold; kPasses when all do.
std::string_view plain_message(std::string_view sql) {
  const Pieces& pieces = kova::fuzz::pieces_of(sql);
  if (const auto message = lexical_message(pieces); !message.empty()) return message;
  for (const SqlPiece& piece : pieces) {
    if (piece.kind == Kind::kWord &&
        is_one_of(kova::fuzz::compared(piece.text), {"MAINTAINER", "SSN"})) {
      return "column is denied by MCP policy";
    }
  }
  if (const auto message = structure_message(pieces); !message.empty()) return message;
  return wildcard_message(pieces);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kova::McpPolicy restricted = make_policy();
  static const kova::McpPolicy unconfigured = [] {
    kova::McpPolicy policy{};
    policy.valid = true;
    return policy;
  }();
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  char message[256] = "";
  const bool passes = kova::policy_validate_select(restricted, sql, message);
  require(passes == (message[0] == '\0'), "a refusal has a message, and nothing else has one");
  require(message == plain_message(sql), "the first rule that does not hold is reported");
  require(kova::policy_validate_select(unconfigured, sql, message),
          "without a policy file everything passes");
  return 0;
}
