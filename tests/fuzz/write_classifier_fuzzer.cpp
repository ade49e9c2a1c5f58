// The canonical form of a write and its classification: the form is final, and what is accepted is
// one permitted statement with the digest of exactly the text that will run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/ascii.h"
#include "base/hex.h"
#include "fuzz/require.h"
#include "fuzz/statement_words.h"
#include "platform/crypto.h"
#include "policy/policy.h"
#include "policy/sql_words.h"
#include "policy/write_classifier.h"

namespace {

using kova::fuzz::require;

constexpr std::string_view kProhibited[] = {
    "CREATE",      "DROP", "ALTER",    "GRANT", "REVOKE", "COMMIT", "ROLLBACK",
    "TRANSACTION", "EXEC", "EXECUTE",  "CALL",  "RUN",    "LOAD",   "IMPORT",
    "EXPORT",      "SYNC", "PROVIDER", "LOGIN", "LOGOUT", "USE"};

kova::McpPolicy make_policy() {
  kova::McpPolicy policy{};
  policy.configured = true;
  policy.valid = true;
  policy.writes_enabled = true;
  policy.write_type_mask = kova::kInsert | kova::kUpdate | kova::kDelete;
  std::strcpy(policy.write_tables.names[0], "notes");
  policy.write_tables.count = 1;
  return policy;
}

void check_canonical(std::string_view text) {
  require(text.ends_with(';') && !text.starts_with(' '), "one terminator ends the text");
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] == '\'') {
      const std::size_t after = kova::skip_literal(text, i);
      require(after != std::string_view::npos, "every literal ends");
      i = after - 1;
      continue;
    }
    require(text[i] != ';' && !kova::begins_comment(text, i), "one statement, no comment");
    require(!kova::is_lower(text[i]), "letters are upper-cased");
    require(!kova::is_space(text[i]) || (text[i] == ' ' && text[i + 1] != ' '),
            "white space is one blank");
  }
}

void check_normalised(std::string_view sql, char* once, char* twice) {
  char message[256];
  if (!kova::write_canonical(sql, kova::TextOut(once, kova::kCanonicalCapacity), message)) return;
  check_canonical(once);
  require(kova::write_canonical(once, kova::TextOut(twice, kova::kCanonicalCapacity), message) &&
              std::strcmp(once, twice) == 0,
          "the canonical form of a canonical form is itself");
}

void check_accepted(const kova::ClassifiedWrite& write) {
  const std::string_view canonical(write.canonical);
  const std::string_view type(write.type);
  check_canonical(canonical);
  require(type == "INSERT" || type == "UPDATE" || type == "DELETE", "one of three types");
  // The shape is read through quotation marks, so the word may stand in a literal, in any case.
  std::string upper(canonical);
  std::transform(upper.begin(), upper.end(), upper.begin(), kova::to_upper);
  require(upper.find(type) != std::string::npos, "the type is in the text");
  require(std::string_view(write.table) == "NOTES", "an allowed table is written");
  for (const std::string& word : kova::fuzz::words_of(canonical)) {
    require(
        std::find(std::begin(kProhibited), std::end(kProhibited), word) == std::end(kProhibited),
        "no prohibited word passes");
  }
  std::uint8_t digest[kova::kSha256Size];
  char text[2 * kova::kSha256Size + 1];
  require(kova::sha256_digest(canonical, digest), "a digest is made");
  kova::write_hex(digest, text);
  require(std::strcmp(text, write.digest) == 0, "the digest is the canonical text's");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kova::McpPolicy policy = make_policy();
  static const auto once = std::make_unique<char[]>(kova::kCanonicalCapacity);
  static const auto twice = std::make_unique<char[]>(kova::kCanonicalCapacity);
  static const auto write = std::make_unique<kova::ClassifiedWrite>();
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  // A statement is a NUL-terminated text.
  if (sql.find('\0') != std::string_view::npos) return 0;
  check_normalised(sql, once.get(), twice.get());
  char message[256];
  if (kova::write_classify(policy, sql, *write, message)) check_accepted(*write);
  return 0;
}
