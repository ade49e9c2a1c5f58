#include "policy/write_classifier.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "base/ascii.h"
#include "base/hex.h"
#include "policy/predicates.h"
#include "policy/sql_words.h"

namespace kova {

namespace {

constexpr std::string_view kProhibitedWords[] = {
    "CREATE",      "DROP", "ALTER",    "GRANT", "REVOKE", "COMMIT", "ROLLBACK",
    "TRANSACTION", "EXEC", "EXECUTE",  "CALL",  "RUN",    "LOAD",   "IMPORT",
    "EXPORT",      "SYNC", "PROVIDER", "LOGIN", "LOGOUT", "USE"};

constexpr std::string_view kTooLarge = "normalized write is too large";

/// Writes the canonical text byte by byte, keeping room for the final ";" and the terminator.
class CanonicalWriter {
 public:
  CanonicalWriter(std::string_view sql, TextOut canonical, TextOut message)
      : sql_(sql), out_(canonical), message_(message) {}

  [[nodiscard]] bool run() {
    out_.copy_cut({});
    while (position_ < sql_.size()) {
      const char c = sql_[position_];
      if (c == ';') {
        if (only_space_from(sql_, position_ + 1)) break;
        return refuse(message_, "only one write statement is allowed");
      }
      if (begins_comment(sql_, position_)) {
        return refuse(message_, "comments are not allowed in writes");
      }
      if (!(c == '\'' ? literal() : outside(c))) return false;
    }
    return out_.append(';');
  }

 private:
  [[nodiscard]] bool outside(char c) {
    ++position_;
    if (is_space(c)) {
      pending_blank_ = true;
      return true;
    }
    return blank() && put(to_upper(c)) ? true : refuse(message_, kTooLarge);
  }

  [[nodiscard]] bool literal() {
    if (!blank() || !out_.append('\'')) return refuse(message_, kTooLarge);
    const std::size_t end = skip_literal(sql_, position_);
    for (++position_; position_ < std::min(end, sql_.size()); ++position_) {
      // The text is full: refused without a message, whether or not the literal would have ended.
      if (!put(sql_[position_])) return false;
    }
    return end != sql_.npos || refuse(message_, "unterminated write literal");
  }

  /// Writes the one blank that stands for a run of white space; none begins the text.
  [[nodiscard]] bool blank() {
    const bool due = pending_blank_ && out_.length() > 0;
    pending_blank_ = false;
    return !due || out_.append(' ');
  }

  [[nodiscard]] bool put(char c) { return out_.length() + 2 < out_.capacity() && out_.append(c); }

  std::string_view sql_;
  TextOut out_;
  TextOut message_;
  std::size_t position_ = 0;
  bool pending_blank_ = false;
};

/// Finds the type's bit and the table by the first words of a canonical text, which are also taken
/// from inside literals.
bool classify(std::string_view canonical, ClassifiedWrite& write, std::uint32_t& bit,
              TextOut message) {
  char first_text[kWordCapacity];
  char second_text[kWordCapacity];
  char third_text[kWordCapacity];
  TextOut first(first_text);
  TextOut second(second_text);
  TextOut third(third_text);
  if (!next_word_anywhere(canonical, first) || !next_word_anywhere(canonical, second)) {
    return refuse(message, "write syntax cannot be classified");
  }
  const bool has_third = next_word_anywhere(canonical, third);
  const auto accept = [&](std::string_view type, std::uint32_t type_bit, const TextOut& table) {
    bit = type_bit;
    return TextOut(write.type).copy(type) && TextOut(write.table).copy(table.view());
  };
  if (first.view() == "INSERT" && second.view() == "INTO" && has_third) {
    return accept("INSERT", kInsert, third);
  }
  if (first.view() == "UPDATE") return accept("UPDATE", kUpdate, second);
  if (first.view() == "DELETE" && second.view() == "FROM" && has_third) {
    return accept("DELETE", kDelete, third);
  }
  return refuse(message, "only INSERT, UPDATE, and DELETE are classifiable writes");
}

bool has_prohibited_word(std::string_view canonical) {
  char text[kWordCapacity];
  TextOut word(text);
  while (policy_next_word(canonical, word)) {
    if (std::find(std::begin(kProhibitedWords), std::end(kProhibitedWords), word.view()) !=
        std::end(kProhibitedWords)) {
      return true;
    }
  }
  return false;
}

}  // namespace

bool write_canonical(std::string_view sql, TextOut canonical, TextOut message) {
  return CanonicalWriter(sql, canonical, message).run();
}

bool write_classify(const McpPolicy& policy, std::string_view sql, ClassifiedWrite& write,
                    TextOut message) {
  if (!policy_writes_allowed(policy)) {
    return refuse(message, "MCP writes are disabled by policy or kill switch");
  }
  if (sql.empty() || sql.size() > kSqlLimit) {
    return refuse(message, "write SQL size is invalid");
  }
  if (!write_canonical(sql, write.canonical, message)) return false;
  const std::string_view canonical(write.canonical);
  std::uint32_t bit = 0;
  if (!classify(canonical, write, bit, message)) return false;
  if ((policy.write_type_mask & bit) == 0 ||
      !policy_table_allowed(policy, write.table, TableUse::kWrite)) {
    return refuse(message, "write type or target table is not allowed by MCP policy");
  }
  if (has_prohibited_word(canonical)) {
    return refuse(message, "write contains a prohibited operation");
  }
  std::uint8_t digest[kSha256Size];
  if (!sha256_digest(canonical, digest)) return refuse(message, "operation digest failed");
  write_hex(digest, write.digest);
  return true;
}

}  // namespace kova
