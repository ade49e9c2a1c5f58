#include "fuzz/json_mutator.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/mutator.h"
#include "fuzz/random.h"

namespace {

using kova::fuzz::kJsonVocabulary;
using kova::fuzz::Random;
using Tokens = std::vector<std::string_view>;

constexpr std::string_view kValues[] = {"0",
                                        "1",
                                        "-1",
                                        "null",
                                        "true",
                                        "false",
                                        "\"\"",
                                        "{}",
                                        "[]",
                                        "\"a\"",
                                        "1.5",
                                        "1e3",
                                        "256",
                                        "[[]]",
                                        "[1,2]",
                                        "{\"a\":1}",
                                        "{\"a\":{\"a\":[]}}",
                                        "\"1\""};
constexpr std::string_view kNumbers[] = {"-0",
                                         "0.0",
                                         "1.0",
                                         "1e0",
                                         "01",
                                         "-",
                                         "1.",
                                         ".5",
                                         "+1",
                                         "4294967295",
                                         "4294967296",
                                         "1E+2",
                                         "3.402823466e38",
                                         "3.5e38",
                                         "1e400",
                                         "1e-400",
                                         "1e-310",
                                         "0000",
                                         "1e",
                                         "255",
                                         "2147483648",
                                         "18446744073709551616",
                                         "0.1e-45",
                                         "00",
                                         "1e-7",
                                         "123456789012345678901234567890",
                                         "1234567890123456789012345678901",
                                         "NaN",
                                         "Infinity",
                                         "0x10",
                                         "1_0",
                                         "truex",
                                         "nul"};
constexpr std::string_view kInString[] = {"\\\"",
                                          "\\\\",
                                          "\\/",
                                          "\\b",
                                          "\\f",
                                          "\\n",
                                          "\\r",
                                          "\\t",
                                          "\\u0041",
                                          "\\u00e4",
                                          "\\u0000",
                                          "\\ud83d\\ude00",
                                          "\\ud800",
                                          "\\udc00",
                                          "\\uD800\\u0041",
                                          "\\uDFFF",
                                          "\\u12",
                                          "\\x",
                                          "\\",
                                          "\xC3\xA4",
                                          "\xE2\x82\xAC",
                                          "\xF0\x9F\x98\x80",
                                          "\xC0\x80",
                                          "\xED\xA0\x80",
                                          "\xF4\x90\x80\x80",
                                          "\x80",
                                          "\xFF",
                                          "\x1F",
                                          "\x7F",
                                          "\t",
                                          "a",
                                          "\"",
                                          "\\u006d"};
constexpr std::string_view kBlanks[] = {" ",  "\t", "\n",       "\r",
                                        "  ", "\v", "\xC2\xA0", "\xEF\xBB\xBF"};

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool is_mark(char c) {
  return std::string_view("{}[]:,").find(c) != std::string_view::npos;
}

/// The size of the first token: a string, a mark, white space, or whatever stands between them.
std::size_t token_size(std::string_view text) {
  std::size_t size = 1;
  if (text[0] == '"') {
    for (; size < text.size(); ++size) {
      if (text[size] == '"') return size + 1;
      if (text[size] == '\\' && size + 1 < text.size()) ++size;
    }
    return size;
  }
  if (is_mark(text[0])) return 1;
  const bool blank = is_blank(text[0]);
  while (size < text.size() && text[size] != '"' && !is_mark(text[size]) &&
         is_blank(text[size]) == blank) {
    ++size;
  }
  return size;
}

Tokens tokens_of(std::string_view text) {
  Tokens tokens;
  while (!text.empty()) {
    tokens.push_back(text.substr(0, token_size(text)));
    text.remove_prefix(tokens.back().size());
  }
  return tokens;
}

bool opens(std::string_view token) {
  return token == "{" || token == "[";
}
bool closes(std::string_view token) {
  return token == "}" || token == "]";
}
bool begins_value(std::string_view token) {
  return opens(token) || !(is_mark(token[0]) || is_blank(token[0]));
}

/// A document, and texts that were made for it.
class Document {
 public:
  Document(std::string_view text, Random& random) : tokens_(tokens_of(text)), random_(random) {
    // Every change makes at most two texts; they must not move.
    made_.reserve(kChangesLimit * 2);
    if (tokens_.empty()) tokens_.push_back("{}");
  }

  static constexpr std::size_t kChangesLimit = 4;

  void change() {
    switch (random_.below(12)) {
      case 0:
      case 1:
        return replace_value();
      case 2:
      case 3:
        return add_entry();
      case 4:
        return remove_value();
      case 5:
        return repeat_range();
      case 6:
        return wrap_value();
      case 7:
        return swap_tokens();
      case 8:
      case 9:
        return change_string();
      case 10:
        return change_number();
      default:
        return add_token();
    }
  }

  [[nodiscard]] std::string text() const {
    std::string text;
    for (const std::string_view token : tokens_) text += token;
    return text;
  }

 private:
  using Place = std::ptrdiff_t;

  std::string_view keep(std::string text) { return made_.emplace_back(std::move(text)); }

  [[nodiscard]] Place size() const { return static_cast<Place>(tokens_.size()); }
  [[nodiscard]] std::string_view at(Place place) const {
    return tokens_[static_cast<std::size_t>(place)];
  }
  Place any_place() { return static_cast<Place>(random_.below(tokens_.size())); }

  /// A place where this holds, looked for from a random one on; -1 for none.
  template <typename Holds>
  Place any_place_where(Holds holds) {
    const Place start = any_place();
    for (Place step = 0; step < size(); ++step) {
      const Place place = (start + step) % size();
      if (holds(at(place))) return place;
    }
    return -1;
  }

  /// After the value that begins here.
  [[nodiscard]] Place value_end(Place begin) const {
    int depth = 0;
    for (Place place = begin; place < size(); ++place) {
      depth += opens(at(place)) ? 1 : closes(at(place)) ? -1 : 0;
      if (depth <= 0) return place + 1;
    }
    return size();
  }

  void put(Place begin, Place end, std::string_view text) {
    tokens_.erase(tokens_.begin() + begin, tokens_.begin() + end);
    tokens_.insert(tokens_.begin() + begin, text);
  }

  std::string_view any_value() {
    const auto values = kJsonVocabulary.values;
    if (!values.empty() && random_.one_in(2)) return random_.of(values);
    return random_.one_in(4) ? random_.of(kNumbers) : random_.of(kValues);
  }

  std::string_view any_key() {
    const auto keys = kJsonVocabulary.keys;
    if (!keys.empty() && !random_.one_in(8)) return random_.of(keys);
    constexpr std::string_view kKeys[] = {"\"a\"", "\"b\"", "\"\\u0061\"", "\"\"", "\"a\\u0000b\""};
    return random_.of(kKeys);
  }

  void replace_value() {
    const Place begin = any_place_where(begins_value);
    if (begin >= 0) put(begin, value_end(begin), any_value());
  }

  void add_entry() {
    const Place place = any_place_where(opens);
    if (place < 0) return replace_value();
    std::string entry(at(place) == "{" ? std::string(any_key()) + ":" : "");
    entry += any_value();
    if (place + 1 < size() && !closes(at(place + 1))) entry += ',';
    tokens_.insert(tokens_.begin() + place + 1, keep(entry));
  }

  void remove_value() {
    const Place begin = any_place_where(begins_value);
    if (begin < 0) return;
    Place end = value_end(begin);
    // A key goes with its value, and both with their comma.
    if (end + 1 < size() && at(end) == ":") end = value_end(end + 1);
    if (end < size() && at(end) == ",") ++end;
    tokens_.erase(tokens_.begin() + begin, tokens_.begin() + end);
    if (tokens_.empty()) tokens_.push_back("[]");
  }

  /// Adds what stands between two commas or so once more.
  void repeat_range() {
    const Place begin = any_place_where(begins_value);
    if (begin < 0) return;
    Place end = value_end(begin);
    if (end + 1 < size() && at(end) == ":") end = value_end(end + 1);
    Tokens copy(tokens_.begin() + begin, tokens_.begin() + end);
    copy.push_back(",");
    tokens_.insert(tokens_.begin() + begin, copy.begin(), copy.end());
  }

  void wrap_value() {
    const Place begin = any_place_where(begins_value);
    if (begin < 0) return;
    const Place end = value_end(begin);
    const bool object = random_.one_in(2);
    const std::size_t levels = random_.one_in(20) ? 126 + random_.below(6) : 1;
    std::string before;
    for (std::size_t i = 0; i < levels; ++i) before += object ? "{\"a\":" : "[";
    tokens_.insert(tokens_.begin() + end, keep(std::string(levels, object ? '}' : ']')));
    tokens_.insert(tokens_.begin() + begin, keep(before));
  }

  void swap_tokens() {
    const Place one = any_place_where(begins_value);
    const Place other = any_place_where(begins_value);
    if (one < 0) return;
    std::swap(tokens_[static_cast<std::size_t>(one)], tokens_[static_cast<std::size_t>(other)]);
  }

  void change_string() {
    const Place place = any_place_where([](std::string_view token) { return token[0] == '"'; });
    if (place < 0) return replace_value();
    std::string text(at(place));
    const std::size_t inside = 1 + random_.below(text.size());
    if (random_.one_in(4) && inside < text.size()) {
      // The same character, spelt as an escape.
      constexpr std::string_view kDigits = "0123456789abcdef";
      const auto byte = static_cast<unsigned char>(text[inside]);
      text.replace(inside, 1, std::string("\\u00") + kDigits[byte / 16] + kDigits[byte % 16]);
    } else {
      text.insert(std::min(inside, text.size()), random_.of(kInString));
    }
    if (random_.one_in(40)) text.insert(1, 58 + random_.below(8), 'x');
    put(place, place + 1, keep(text));
  }

  void change_number() {
    const Place place = any_place_where([](std::string_view token) {
      return token[0] == '-' || (token[0] >= '0' && token[0] <= '9');
    });
    if (place < 0) return replace_value();
    std::string text(at(place));
    const std::size_t inside = random_.below(text.size());
    if (random_.one_in(2)) {
      text = random_.of(kNumbers);
    } else if (random_.one_in(2)) {
      text[inside] = "0123456789.eE+-"[random_.below(15)];
    } else {
      text.insert(inside, 1, "0123456789.eE+-"[random_.below(15)]);
    }
    put(place, place + 1, keep(text));
  }

  /// White space most often; any other token breaks the syntax.
  void add_token() {
    constexpr std::string_view kMarks[] = {"{", "}", "[", "]", ":", ",", "\"", "\\", "/", "'"};
    const std::string_view token = random_.one_in(3) ? random_.of(kMarks) : random_.of(kBlanks);
    tokens_.insert(tokens_.begin() + any_place(), token);
  }

  Tokens tokens_;
  std::vector<std::string> made_;
  Random& random_;
};

}  // namespace

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed) {
  Random random(seed);
  if (random.one_in(5)) return LLVMFuzzerMutate(data, size, max_size);
  Document document(kova::fuzz::text_of(data, size), random);
  std::size_t changes = 0;
  do document.change();
  while (++changes < Document::kChangesLimit && random.one_in(3));
  const std::string text = document.text();
  // A text that was cut is no document any more.
  if (text.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
  return kova::fuzz::give(text, data, max_size);
}
