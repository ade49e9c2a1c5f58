// The texts that the JSON benchmarks share.
#pragma once

#include <string>
#include <vector>

namespace kova_bench {

/// A message as a client sends it, and the member of its arguments that makes it long (empty when
/// that is no string).
struct JsonInput {
  std::string name;
  std::string json;
  std::string long_text;
};

/// Complete tools/call messages, each of at most 1,048,576 bytes and 4,096 tokens.
[[nodiscard]] const std::vector<JsonInput>& json_inputs();

/// A plain text of 16,384 bytes to be escaped.
struct TextInput {
  std::string name;
  std::string text;
};
[[nodiscard]] const std::vector<TextInput>& text_inputs();

}  // namespace kova_bench
