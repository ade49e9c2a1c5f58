// The word scanner: it always moves on, and what it gives are words.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/ascii.h"
#include "fuzz/require.h"
#include "policy/sql_words.h"

namespace {

using kova::fuzz::require;

void check_word(std::string_view word) {
  require(!word.empty() && word.size() < kova::kWordCapacity, "a word has 1 to 63 bytes");
  require(!kova::is_digit(word[0]), "a word does not begin with a digit");
  for (const char byte : word) {
    require(kova::is_word_byte(byte) && !kova::is_lower(byte), "a word is upper-cased");
  }
}

void check_words(std::string_view sql) {
  std::string_view rest = sql;
  char buffer[kova::kWordCapacity];
  for (;;) {
    kova::TextOut word(buffer);
    const std::string_view before = rest;
    const bool found = kova::policy_next_word(rest, word);
    require(rest.data() + rest.size() == sql.data() + sql.size(), "the rest is the text's end");
    require(rest.size() <= before.size(), "the scanner never goes back");
    if (!found) {
      require(rest.empty(), "without a word the end is reached");
      return;
    }
    require(rest.size() < before.size(), "a word is taken off");
    require(rest.empty() || !kova::is_word_byte(rest[0]), "a word is taken whole");
    check_word(word.view());
  }
}

void check_marks(std::string_view sql) {
  for (std::size_t i = 0; i < sql.size(); ++i) {
    static_cast<void>(kova::begins_comment(sql, i));
    if (sql[i] != '\'') continue;
    const std::size_t after = kova::skip_literal(sql, i);
    if (after == std::string_view::npos) continue;
    require(after >= i + 2 && after <= sql.size() && sql[after - 1] == '\'',
            "a literal ends with its quote");
    require(after == sql.size() || sql[after] != '\'', "two quotes are one");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  check_words(sql);
  check_marks(sql);
  return 0;
}
