// Changes JSON by its tokens and values: values are replaced, repeated, wrapped, swapped and
// removed, members and elements are added, strings get escapes and odd bytes, numbers odd forms,
// and the syntax is broken now and then. One change in five is libFuzzer's own, of bytes.
#pragma once

#include <span>
#include <string_view>

namespace kova::fuzz {

/// What a fuzzer's documents are made of: JSON texts of keys and of values.
struct JsonVocabulary {
  std::span<const std::string_view> keys;
  std::span<const std::string_view> values;
};

/// Each fuzzer that links the mutator defines its own.
extern const JsonVocabulary kJsonVocabulary;

}  // namespace kova::fuzz
