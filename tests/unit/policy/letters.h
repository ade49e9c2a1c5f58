// Texts in other letters, as the rules for words take them.
#pragma once

#include <string>

namespace kova::testing {

/// The text with its ASCII letters in lower case.
inline std::string lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

}  // namespace kova::testing
