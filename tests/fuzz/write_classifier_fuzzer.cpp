// The canonical form of a write and its classification against their rules, worked out over the
// pieces of a second tokenizer; and the digest of exactly the text that will run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/plain_sql.h"
#include "fuzz/require.h"
#include "policy/policy.h"
#include "policy/write_classifier.h"
#include "support/reference_digest.h"

namespace {

using kova::fuzz::plain_words;
using kova::fuzz::require;
using kova::fuzz::SqlPiece;

constexpr std::string_view kProhibited[] = {
    "CREATE",      "DROP", "ALTER",    "GRANT", "REVOKE", "COMMIT", "ROLLBACK",
    "TRANSACTION", "EXEC", "EXECUTE",  "CALL",  "RUN",    "LOAD",   "IMPORT",
    "EXPORT",      "SYNC", "PROVIDER", "LOGIN", "LOGOUT", "USE"};

kova::McpPolicy make_policy() {
  kova::McpPolicy policy{};
  policy.configured = true;
  policy.valid = true;
  policy.writes_enabled = true;
  policy.write_type_mask = kova::kInsert | kova::kDelete;
  std::strcpy(policy.write_tables.names[0], "notes");
  policy.write_tables.count = 1;
  return policy;
}

/// What a write must come to: a message, or the texts of an accepted one.
struct Expected {
  std::string_view message;
  std::string canonical, type, table;
};

std::string upper(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = c >= 'a' && c <= 'z' ? static_cast<char>(c ^ 0x20) : c;
  return result;
}

/// The canonical form, or the message of the first piece that has none.
std::string_view plain_canonical(std::string_view sql, std::string& canonical) {
  using Kind = SqlPiece::Kind;
  bool ended = false;
  bool blank = false;
  for (const SqlPiece& piece : kova::fuzz::pieces_of(sql)) {
    if (piece.kind == Kind::kBlank) {
      blank = true;
      continue;
    }
    if (ended) return "only one write statement is allowed";
    if (piece.kind == Kind::kDashes) return "comments are not allowed in writes";
    if (piece.kind == Kind::kOpenLiteral) return "unterminated write literal";
    ended = piece.text == ";";
    if (ended) continue;
    if (blank && !canonical.empty()) canonical += ' ';
    blank = false;
    canonical += piece.kind == Kind::kLiteral ? std::string(piece.text) : upper(piece.text);
  }
  canonical += ';';
  return {};
}

/// Type and table by the first words, in literals or not, or the message.
std::string_view plain_type(Expected& write) {
  std::string open(write.canonical);
  std::replace(open.begin(), open.end(), '\'', ' ');
  const std::vector<std::string> words = plain_words(open);
  if (words.size() < 2) return "write syntax cannot be classified";
  const bool has_table = words.size() > 2;
  if ((words[0] == "INSERT" && words[1] == "INTO" && has_table) ||
      (words[0] == "DELETE" && words[1] == "FROM" && has_table)) {
    write.type = words[0];
    write.table = words[2];
  } else if (words[0] == "UPDATE") {
    write.type = words[0];
    write.table = words[1];
  } else {
    return "only INSERT, UPDATE, and DELETE are classifiable writes";
  }
  return {};
}

Expected expected_of(std::string_view sql) {
  Expected write;
  if (sql.empty()) {
    write.message = "write SQL size is invalid";
    return write;
  }
  write.message = plain_canonical(sql, write.canonical);
  if (!write.message.empty()) return write;
  write.message = plain_type(write);
  if (!write.message.empty()) return write;
  if (write.type == "UPDATE" || write.table != "NOTES") {
    write.message = "write type or target table is not allowed by MCP policy";
    return write;
  }
  for (const std::string& word : plain_words(write.canonical)) {
    if (std::find(std::begin(kProhibited), std::end(kProhibited), word) != std::end(kProhibited)) {
      write.message = "write contains a prohibited operation";
    }
  }
  return write;
}

void check_accepted(const kova::ClassifiedWrite& write, const Expected& expected) {
  require(write.canonical == expected.canonical, "the canonical form is the one of the rules");
  require(write.type == expected.type && write.table == expected.table,
          "and so the type and table");
  require(write.digest == kova::testing::to_hex(kova::testing::reference_sha256(write.canonical)),
          "the digest is the canonical text's");
  static const auto again = std::make_unique<char[]>(kova::kCanonicalCapacity);
  char message[256];
  require(kova::write_canonical(write.canonical,
                                kova::TextOut(again.get(), kova::kCanonicalCapacity), message) &&
              std::strcmp(again.get(), write.canonical) == 0,
          "the canonical form of a canonical form is itself");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kova::McpPolicy policy = make_policy();
  static const auto write = std::make_unique<kova::ClassifiedWrite>();
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  // A statement is a NUL-terminated text. Longer ones than half of what is allowed are for the unit
  // tests: the rules here do not know where the canonical form is full.
  if (sql.find('\0') != std::string_view::npos || sql.size() > kova::kSqlLimit / 2) return 0;
  const Expected expected = expected_of(sql);
  char message[256] = "";
  if (kova::write_classify(policy, sql, *write, message)) {
    require(expected.message.empty(), "only what the rules allow is accepted");
    check_accepted(*write, expected);
  } else {
    require(message == expected.message, "the first rule that does not hold is reported");
  }
  return 0;
}
