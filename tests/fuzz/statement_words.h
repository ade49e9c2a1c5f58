// The words of a statement, for rules about what a checker has let through.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "policy/sql_words.h"

namespace kova::fuzz {

/// The words outside single-quoted literals, upper-cased and cut to 63 bytes.
inline std::vector<std::string> words_of(std::string_view sql) {
  std::vector<std::string> words;
  char buffer[kWordCapacity];
  for (TextOut word(buffer); policy_next_word(sql, word); word = TextOut(buffer)) {
    words.emplace_back(word.view());
  }
  return words;
}

}  // namespace kova::fuzz
