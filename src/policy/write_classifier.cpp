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
  CanonicalWriter(std::string_view sql, TextOut canonical, TextOut message, CheckTrace* trace)
      : sql_(sql), out_(canonical), message_(message), trace_(trace) {}

  [[nodiscard]] bool run() {
    out_.copy_cut({});
    while (position_ < sql_.size()) {
      const char c = sql_[position_];
      if (c == ';') {
        if (only_space_from(sql_, position_ + 1)) break;
        trace_check(trace_, "write-one-statement", position_);
        return refuse(message_, "only one write statement is allowed");
      }
      if (begins_comment(sql_, position_)) {
        trace_check(trace_, "write-comment", position_);
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
    const std::size_t open = position_;
    const std::size_t end = skip_literal(sql_, open);
    for (++position_; position_ < std::min(end, sql_.size()); ++position_) {
      // The text is full: refused without a message, whether or not the literal would have ended.
      if (!put(sql_[position_])) return false;
    }
    if (end != sql_.npos) return true;
    trace_check(trace_, "write-open-literal", open);
    return refuse(message_, "unterminated write literal");
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
  CheckTrace* trace_;
  std::size_t position_ = 0;
  bool pending_blank_ = false;
};

using NextWord = bool(std::string_view& sql, TextOut& word);

/// The index of a word in the client's text, by how many words it follows. The canonical text has
/// the same words.
std::size_t word_place(std::string_view sql, std::size_t index, NextWord* next_word) {
  char text[kWordCapacity];
  TextOut word(text);
  std::string_view rest = sql;
  for (std::size_t i = 0; i <= index; ++i) {
    if (!next_word(rest, word)) return CheckTrace::kNowhere;
  }
  return taken_word_begin(sql, rest);
}

/// Traces the word that keeps a text of at least two words from being a write; there is none when
/// it ends before its target.
void trace_shape(std::string_view sql, std::string_view first, std::string_view second,
                 CheckTrace* trace) {
  if (trace == nullptr || (first == "INSERT" && second == "INTO") ||
      (first == "DELETE" && second == "FROM")) {
    return;
  }
  const bool begins_as_write = first == "INSERT" || first == "DELETE";
  trace_check(trace, "write-shape", word_place(sql, begins_as_write ? 1 : 0, next_word_anywhere));
}

/// Finds the type's bit and the table by the first words of a canonical text, which are also taken
/// from inside literals.
bool classify(std::string_view canonical, ClassifiedWrite& write, std::uint32_t& bit,
              TextOut message, std::string_view sql, CheckTrace* trace) {
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
  trace_shape(sql, first.view(), second.view(), trace);
  return refuse(message, "only INSERT, UPDATE, and DELETE are classifiable writes");
}

/// Counts the words before the first prohibited one; false when there is none.
bool find_prohibited_word(std::string_view canonical, std::size_t& index) {
  char text[kWordCapacity];
  TextOut word(text);
  for (index = 0; policy_next_word(canonical, word); ++index) {
    if (std::find(std::begin(kProhibitedWords), std::end(kProhibitedWords), word.view()) !=
        std::end(kProhibitedWords)) {
      return true;
    }
  }
  return false;
}

bool check_prohibited_words(std::string_view canonical, std::string_view sql, TextOut message,
                            CheckTrace* trace) {
  std::size_t index = 0;
  if (!find_prohibited_word(canonical, index)) return true;
  trace_check(trace, "write-prohibited-word", word_place(sql, index, policy_next_word));
  return refuse(message, "write contains a prohibited operation");
}

/// The type or the target that the policy does not list.
void trace_target(const McpPolicy& policy, std::string_view sql, std::uint32_t bit,
                  CheckTrace* trace) {
  if (trace == nullptr) return;
  if ((policy.write_type_mask & bit) == 0) {
    return trace_check(trace, "write_types", word_place(sql, 0, next_word_anywhere));
  }
  const std::size_t index = bit == kUpdate ? 1 : 2;
  trace_check(trace, "write_tables", word_place(sql, index, next_word_anywhere));
}

}  // namespace

bool write_canonical(std::string_view sql, TextOut canonical, TextOut message) {
  return CanonicalWriter(sql, canonical, message, nullptr).run();
}

bool write_classify(const McpPolicy& policy, std::string_view sql, ClassifiedWrite& write,
                    TextOut message, CheckTrace* trace) {
  trace_check(trace, "writes_enabled");
  if (!policy_writes_allowed(policy)) {
    return refuse(message, "MCP writes are disabled by policy or kill switch");
  }
  trace_check(trace, "write-size");
  if (sql.empty() || sql.size() > kSqlLimit) {
    return refuse(message, "write SQL size is invalid");
  }
  if (!CanonicalWriter(sql, write.canonical, message, trace).run()) return false;
  trace_check(trace, "write-shape");
  const std::string_view canonical(write.canonical);
  std::uint32_t bit = 0;
  if (!classify(canonical, write, bit, message, sql, trace)) return false;
  if ((policy.write_type_mask & bit) == 0 ||
      !policy_table_allowed(policy, write.table, TableUse::kWrite)) {
    trace_target(policy, sql, bit, trace);
    return refuse(message, "write type or target table is not allowed by MCP policy");
  }
  if (!check_prohibited_words(canonical, sql, message, trace)) return false;
  std::uint8_t digest[kSha256Size];
  if (!sha256_digest(canonical, digest)) return refuse(message, "operation digest failed");
  write_hex(digest, write.digest);
  return true;
}

}  // namespace kova
