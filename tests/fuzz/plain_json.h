// JSON read by RapidJSON: what our parser is held against. Three things differ, and are made equal
// here or left out: RapidJSON ends a text at a NUL byte, judges surrogate escapes while it parses
// (ours judges them when a string is taken out), and refuses numbers that no double holds. Its real
// numbers are not used: it reads 0e39 as 1.5e20.
#pragma once

// It adds to a null pointer, which the sanitizer would report.
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#pragma clang attribute pop

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json/json.h"

namespace kova::fuzz {

/// One value or key in document order.
struct PlainToken {
  JsonType type = JsonType::kPrimitive;
  int size = 0;                        ///< direct children; keys and values both count
  std::string text;                    ///< a string's, decoded
  bool escaped = false;                ///< a string that is spelt with an escape
  std::optional<bool> flag;            ///< true or false
  std::optional<std::uint32_t> whole;  ///< a number without a sign, a fraction and an exponent
  bool number = false;                 ///< any number
};

enum class Verdict { kMalformed, kGood, kUnknown };

/// What RapidJSON's reader reports, as a list of tokens within our limits.
class PlainTokens : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, PlainTokens> {
 public:
  explicit PlainTokens(int capacity) : capacity_(capacity) { tokens_.reserve(64); }

  /// Reads a text whose surrogate escapes may have been replaced.
  Verdict read(std::string_view text) {
    constexpr unsigned kFlags = rapidjson::kParseValidateEncodingFlag;
    if (text.find('\0') != std::string_view::npos) return Verdict::kMalformed;
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Reader reader;
    text_ = text;
    stream_ = &stream;
    const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, *this);
    if (result.Code() == rapidjson::kParseErrorNumberTooBig) return Verdict::kUnknown;
    return result.IsError() ? Verdict::kMalformed : Verdict::kGood;
  }

  [[nodiscard]] const std::vector<PlainToken>& tokens() const { return tokens_; }

  bool Null() { return value(JsonType::kPrimitive); }
  bool Bool(bool flag) {
    if (!value(JsonType::kPrimitive)) return false;
    tokens_.back().flag = flag;
    return true;
  }
  bool Int(int /*value*/) { return number(); }
  bool Uint(unsigned value) { return number() && set_whole(value); }
  bool Int64(std::int64_t /*value*/) { return number(); }
  bool Uint64(std::uint64_t /*value*/) { return number(); }
  bool Double(double /*value*/) { return number(); }
  bool String(const char* text, unsigned size, bool /*copy*/) {
    return value(JsonType::kString) && set_text({text, size});
  }
  bool Key(const char* text, unsigned size, bool /*copy*/) {
    return add(JsonType::kString) && set_text({text, size});
  }
  bool StartObject() { return open(JsonType::kObject); }
  bool EndObject(unsigned /*count*/) { return close(); }
  bool StartArray() { return open(JsonType::kArray); }
  bool EndArray(unsigned /*count*/) { return close(); }

 private:
  bool add(JsonType type) {
    if (static_cast<int>(tokens_.size()) == capacity_) return false;
    if (!open_.empty()) ++tokens_[open_.back()].size;
    tokens_.emplace_back().type = type;
    return true;
  }
  // A key may stand deeper than a value.
  bool value(JsonType type) {
    return static_cast<int>(open_.size()) <= kJsonDepthLimit && add(type);
  }
  bool open(JsonType type) {
    if (!value(type)) return false;
    open_.push_back(tokens_.size() - 1);
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }
  bool number() {
    if (!value(JsonType::kPrimitive)) return false;
    tokens_.back().number = true;
    return true;
  }
  bool set_whole(std::uint32_t value) {
    tokens_.back().whole = value;
    return true;
  }
  // The reader stands behind the closing quotation mark. Decoded text is shorter than its escapes.
  bool set_text(std::string_view text) {
    tokens_.back().text = text;
    const std::size_t end = stream_->Tell() - 1;
    const std::size_t begin = end - text.size();
    tokens_.back().escaped = text_[begin - 1] != '"' || text_.substr(begin, text.size()) != text;
    return true;
  }

  int capacity_;
  std::string_view text_;
  const rapidjson::MemoryStream* stream_ = nullptr;
  std::vector<PlainToken> tokens_;
  std::vector<std::size_t> open_;
};

/// The text with an "A" for every escape of a surrogate; whether there was one is in `replaced`.
inline std::string without_surrogates(std::string_view text, bool& replaced) {
  std::string result(text);
  replaced = false;
  for (std::size_t i = result.find('\\'); i < result.size(); i = result.find('\\', i + 2)) {
    if (result.size() - i < 6 || result[i + 1] != 'u') continue;
    const auto is_one_of = [&result](std::size_t at, std::string_view digits) {
      return digits.find(result[at]) != std::string_view::npos;
    };
    constexpr std::string_view kDigits = "0123456789abcdefABCDEF";
    if (is_one_of(i + 2, "dD") && is_one_of(i + 3, "89abcdefABCDEF") && is_one_of(i + 4, kDigits) &&
        is_one_of(i + 5, kDigits)) {
      result.replace(i + 2, 4, "0041");
      replaced = true;
    }
  }
  return result;
}

}  // namespace kova::fuzz
