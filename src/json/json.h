// The JSON document: a borrowed text and a flat array of tokens that point into it. Parsing
// allocates and copies nothing (RFC 8259, UTF-8 by RFC 3629); texts are unescaped only when a
// caller takes them out, into a buffer of its own.
//
//   if (!json_parse(text, tokens, kMessageTokenCapacity, doc)) return refuse(message, "...");
//   const int sql = json_find(doc, 0, "sql");              // a token's index, -1 for none
//   if (!json_get_string(doc, sql, statement)) return refuse(message, "...");
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "base/text.h"

namespace kova {

enum class JsonType : std::int32_t { kObject = 1, kArray = 2, kString = 3, kPrimitive = 4 };

/// One value or key. The offsets of a string lie inside its quotation marks; `end` is the index
/// after the last byte, for an object or array after its closing bracket, -1 while it is open.
struct JsonToken {
  JsonType type;
  std::int32_t start;
  std::int32_t end;
  std::int32_t size;    ///< direct children; an object's keys and values both count
  std::int32_t parent;  ///< index of the enclosing object or array, -1 for the root
};

/// Tokens of the protocol's messages.
inline constexpr int kMessageTokenCapacity = 4096;
/// A value at this depth is the deepest that parses; the root's depth is 0.
inline constexpr int kJsonDepthLimit = 128;

/// Tokens that are enough for a text, at most `limit`: each has a byte of its own. An array of this
/// size costs a short text less memory than one for the limit.
[[nodiscard]] constexpr int json_token_count(std::string_view text, int limit) {
  return text.size() < static_cast<std::size_t>(limit) ? static_cast<int>(text.size()) + 1 : limit;
}

/// A parsed text: tokens in document order, an object's keys and values alternately. Both arrays
/// are the caller's.
struct JsonDoc {
  std::string_view text;
  const JsonToken* tokens = nullptr;
  int count = 0;

  [[nodiscard]] const JsonToken& operator[](int index) const { return tokens[index]; }
  /// Whether the index names a token of this type.
  [[nodiscard]] bool is(int index, JsonType type) const {
    return index >= 0 && index < count && tokens[index].type == type;
  }
  /// The source text of a token; a string's without its quotation marks.
  [[nodiscard]] std::string_view raw(int index) const {
    const JsonToken& token = tokens[index];
    return slice(text, static_cast<std::size_t>(token.start),
                 static_cast<std::size_t>(token.end - token.start));
  }
};

/// Parses one complete text into `tokens`, at most `capacity` of them, and sets `doc` to it. False
/// on malformed JSON or UTF-8, on more tokens or a deeper nesting than allowed, and on an empty
/// text; `doc` is then not to be used, and `stopped` is the index of the byte at which the parser
/// gave up.
[[nodiscard]] bool json_parse(std::string_view text, JsonToken* tokens, int capacity, JsonDoc& doc,
                              std::size_t* stopped = nullptr);

/// The value of an object's first member whose key's source text equals `key` (escapes are not
/// decoded, so an escaped spelling is never found), or -1.
[[nodiscard]] int json_find(const JsonDoc& doc, int object, std::string_view key);

/// One member of an object: the indices of its key and of its value.
struct JsonMember {
  int key;
  int value;
};

/// The members of an object in order, to be walked once:
///   JsonMembers members(doc, object);
///   for (const JsonMember member : members) ...
/// Any other token has none and is not well formed.
class JsonMembers {
 public:
  class Iterator {
   public:
    explicit Iterator(JsonMembers& members) : members_(members) {}
    JsonMember operator*() const { return {.key = members_.key_, .value = members_.key_ + 1}; }
    Iterator& operator++() {
      members_.advance();
      return *this;
    }
    bool operator==(std::default_sentinel_t /*end*/) const { return members_.key_ < 0; }

   private:
    JsonMembers& members_;
  };

  JsonMembers(const JsonDoc& doc, int object);
  Iterator begin() { return Iterator(*this); }
  static std::default_sentinel_t end() { return {}; }

  /// False once the walk has met something that is no pair of a key and its value; it ends there.
  [[nodiscard]] bool well_formed() const { return well_formed_; }

 private:
  void advance();
  void stand_at(int key);

  const JsonDoc& doc_;
  int object_;
  int key_ = -1;
  bool well_formed_ = false;
};

/// The indices of an array's elements in order; none for any other token.
class JsonElements {
 public:
  class Iterator {
   public:
    Iterator(const JsonDoc& doc, int element, int end) : doc_(doc), element_(element), end_(end) {}
    int operator*() const { return element_; }
    Iterator& operator++();
    bool operator==(std::default_sentinel_t /*end*/) const { return element_ >= end_; }

   private:
    const JsonDoc& doc_;
    int element_;
    int end_;
  };

  JsonElements(const JsonDoc& doc, int array) : doc_(doc), array_(array) {}
  [[nodiscard]] Iterator begin() const;
  static std::default_sentinel_t end() { return {}; }

 private:
  const JsonDoc& doc_;
  int array_;
};

/// The index of the first token after a subtree, `count` after the last one; -1 for a bad index or
/// an open container.
[[nodiscard]] int json_skip(const JsonDoc& doc, int index);

/// Unescapes a string token into `out`. False for another type, a text that does not fit and a
/// malformed escape (a lone surrogate). An escaped NUL is written as such: a reader of the result
/// sees the text end there.
[[nodiscard]] bool json_get_string(const JsonDoc& doc, int index, TextOut out);

/// Unescapes the source text of a string token to [target, target_end) and moves `target` behind
/// it; an escaped NUL is a byte like others. False for a text that does not fit and a malformed
/// escape.
[[nodiscard]] bool json_decode(std::string_view raw, char*& target, const char* target_end);

/// A string as json_get_string gives it, any other token's source text.
[[nodiscard]] bool json_get_scalar_text(const JsonDoc& doc, int index, TextOut out);

/// A number token of 1 to 31 characters that is a whole decimal integer without a sign and fits
/// 32 bits.
[[nodiscard]] bool json_get_unsigned(const JsonDoc& doc, int index, std::uint32_t& value);

/// A number token of 1 to 63 characters, read as a double and narrowed. False for a number that a
/// double cannot hold, that narrows to no finite float or that exceeds 3.402823466e38 in magnitude;
/// one too small for a float becomes zero, one too small for a double is refused.
[[nodiscard]] bool json_get_float(const JsonDoc& doc, int index, float& value);

/// The value of four hexadecimal digits of either case.
[[nodiscard]] bool json_hex4(const char* digits, std::uint32_t& value);

/// Decodes a string token's source text byte by byte; an escaped NUL ends the text.
class JsonStringReader {
 public:
  explicit JsonStringReader(std::string_view raw) : raw_(raw) {}
  static constexpr int kEnd = -1;
  static constexpr int kMalformed = -2;
  /// The next byte as 1 to 255, kEnd or kMalformed; not to be called again after the last two.
  [[nodiscard]] int next();

 private:
  std::string_view raw_;
  std::size_t position_ = 0;
  unsigned char pending_[4] = {};
  int pending_count_ = 0;
  int pending_index_ = 0;
};

}  // namespace kova
