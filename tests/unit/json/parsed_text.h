// A text parsed on guard pages: the parser can read nothing around the text and write nothing
// after the tokens it was given room for.
#pragma once

#include <cstddef>
#include <string_view>

#include "json/json.h"
#include "support/guard_page.h"

namespace kova::testing {

class ParsedText {
 public:
  explicit ParsedText(std::string_view text, int capacity = 64, GuardSide side = GuardSide::kAfter)
      : text_(text, side), tokens_(static_cast<std::size_t>(capacity) * sizeof(JsonToken)) {
    parsed_ =
        json_parse(text_.view(), reinterpret_cast<JsonToken*>(tokens_.data()), capacity, doc_);
  }

  [[nodiscard]] bool ok() const { return parsed_; }
  [[nodiscard]] const JsonDoc& doc() const { return doc_; }

 private:
  GuardedText text_;
  GuardedBuffer tokens_;
  JsonDoc doc_;
  bool parsed_;
};

}  // namespace kova::testing
