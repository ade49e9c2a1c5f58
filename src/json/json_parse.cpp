#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>

#include "base/ascii.h"
#include "base/string_scan.h"
#include "json/json.h"

namespace kova {

namespace {

constexpr bool is_json_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

/// What may follow a backslash, "u" and its digits aside.
constexpr bool is_escape_letter(char c) {
  return c == '"' || c == '\\' || c == '/' || c == 'b' || c == 'f' || c == 'n' || c == 'r' ||
         c == 't';
}

/// One function per rule of the grammar; each leaves the position after what it took.
class Parser {
 public:
  Parser(std::string_view text, JsonToken* tokens, int capacity)
      : begin_(text.data()),
        p_(text.data()),
        end_(text.data() + text.size()),
        tokens_(tokens),
        capacity_(capacity) {}

  [[nodiscard]] bool document() {
    skip_space();
    if (!value(-1, 0)) return false;
    skip_space();
    return p_ == end_;
  }

  [[nodiscard]] int count() const { return count_; }
  [[nodiscard]] std::size_t position() const { return static_cast<std::size_t>(p_ - begin_); }

 private:
  void skip_space() {
    while (p_ != end_ && is_json_space(*p_)) ++p_;
  }

  [[nodiscard]] bool take(char c) {
    if (p_ == end_ || *p_ != c) return false;
    ++p_;
    return true;
  }

  [[nodiscard]] std::int32_t offset(const char* p) const {
    return static_cast<std::int32_t>(p - begin_);
  }

  [[nodiscard]] bool append(JsonType type, const char* start, const char* end, int parent) {
    if (count_ == capacity_) return false;
    tokens_[count_++] = {.type = type,
                         .start = offset(start),
                         .end = end != nullptr ? offset(end) : -1,
                         .size = 0,
                         .parent = parent};
    if (parent >= 0) ++tokens_[parent].size;
    return true;
  }

  [[nodiscard]] bool value(int parent, int depth) {
    if (depth > kJsonDepthLimit || p_ == end_) return false;
    switch (*p_) {
      case '{':
        return container(JsonType::kObject, '}', parent, depth);
      case '[':
        return container(JsonType::kArray, ']', parent, depth);
      case '"':
        return string(parent);
      case 't':
        return literal("true", parent);
      case 'f':
        return literal("false", parent);
      case 'n':
        return literal("null", parent);
      default:
        return number(parent);
    }
  }

  [[nodiscard]] bool container(JsonType type, char closing, int parent, int depth) {
    const int self = count_;
    if (!append(type, p_, nullptr, parent)) return false;
    ++p_;
    skip_space();
    if (!take(closing)) {
      for (;;) {
        if (type == JsonType::kObject && !key(self)) return false;
        if (!value(self, depth + 1)) return false;
        skip_space();
        if (take(closing)) break;
        if (!take(',')) return false;
        skip_space();
      }
    }
    tokens_[self].end = offset(p_);
    return true;
  }

  [[nodiscard]] bool key(int object) {
    if (!string(object)) return false;
    skip_space();
    if (!take(':')) return false;
    skip_space();
    return true;
  }

  [[nodiscard, gnu::noinline]] bool string(int parent) {
    if (!take('"')) return false;
    const char* const start = p_;
    if (!string_end() || !append(JsonType::kString, start, p_, parent)) return false;
    ++p_;
    return true;
  }

  // Leaves the position at the closing quotation mark.
  [[nodiscard]] bool string_end() {
    while (end_ - p_ >= kRunBlock) {
      const char* const block = p_;
      unsigned stops = run_stops<NonAscii::kStops>(load_block(block));
      p_ += kRunBlock;
      if (stops == 0) {
        p_ = skip_plain_groups<NonAscii::kStops>(p_, end_);
        continue;
      }
      // An escape of one letter is stepped over without looking at the block anew.
      while (stops != 0) {
        const int at = std::countr_zero(stops);
        p_ = block + at;
        if (*p_ == '"') return true;
        if (*p_ != '\\' || p_ + 1 == end_ || !is_escape_letter(p_[1])) break;
        stops &= ~(3U << at);
        p_ = std::max(block + kRunBlock, p_ + 2);
      }
      if (stops != 0 && !special()) return false;
    }
    for (;;) {
      p_ = find_run_end<NonAscii::kStops>(p_, end_);
      if (p_ == end_) return false;
      if (*p_ == '"') return true;
      if (!special()) return false;
    }
  }

  // What stands in a string beside plain ASCII. UTF-8 is judged here alone: outside a string no
  // byte beyond ASCII passes anyway. A control byte is refused, as no character begins with one.
  [[nodiscard, gnu::noinline]] bool special() {
    if (*p_ == '\\') return escape();
    const char* const next = skip_utf8(p_, end_);
    if (next == nullptr) return false;
    p_ = next;
    return true;
  }

  // A malformed one leaves the position at its backslash.
  [[nodiscard]] bool escape() {
    constexpr std::ptrdiff_t kUnitSize = 6;
    if (end_ - p_ < 2) return false;
    if (p_[1] != 'u') {
      if (!is_escape_letter(p_[1])) return false;
      p_ += 2;
      return true;
    }
    if (end_ - p_ < kUnitSize) return false;
    for (int i = 2; i < kUnitSize; ++i) {
      if (hex_value(p_[i]) < 0) return false;
    }
    p_ += kUnitSize;
    return true;
  }

  [[nodiscard]] bool literal(std::string_view word, int parent) {
    if (static_cast<std::size_t>(end_ - p_) < word.size() ||
        std::memcmp(p_, word.data(), word.size()) != 0) {
      return false;
    }
    const char* const start = p_;
    p_ += word.size();
    return append(JsonType::kPrimitive, start, p_, parent);
  }

  [[nodiscard]] bool digits() {
    const char* const start = p_;
    while (p_ != end_ && is_digit(*p_)) ++p_;
    return p_ != start;
  }

  [[nodiscard, gnu::noinline]] bool number(int parent) {
    const char* const start = p_;
    static_cast<void>(take('-'));
    if (!take('0') && !digits()) return false;
    if (take('.') && !digits()) return false;
    if (take('e') || take('E')) {
      if (!take('+')) static_cast<void>(take('-'));
      if (!digits()) return false;
    }
    return append(JsonType::kPrimitive, start, p_, parent);
  }

  const char* begin_;
  const char* p_;
  const char* end_;
  JsonToken* tokens_;
  int capacity_;
  int count_ = 0;
};

}  // namespace

bool json_parse(std::string_view text, JsonToken* tokens, int capacity, JsonDoc& doc,
                std::size_t* stopped) {
  if (stopped != nullptr) *stopped = 0;
  if (text.size() > INT32_MAX || tokens == nullptr || capacity <= 0) return false;
  Parser parser(text, tokens, capacity);
  if (!parser.document()) {
    if (stopped != nullptr) *stopped = parser.position();
    return false;
  }
  doc = {.text = text, .tokens = tokens, .count = parser.count()};
  return true;
}

}  // namespace kova
