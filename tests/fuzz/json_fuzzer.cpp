// The JSON parser and its accessors: what RapidJSON parses within our limits parses, and nothing
// else; the tokens, texts and numbers are the same, and the accessors agree with each other.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "fuzz/json_mutator.h"
#include "fuzz/plain_json.h"
#include "fuzz/require.h"
#include "json/json.h"
#include "mcp/duplicate_keys.h"

namespace {

using kova::JsonDoc;
using kova::JsonStringReader;
using kova::JsonToken;
using kova::JsonType;
using kova::TextOut;
using kova::fuzz::PlainToken;
using kova::fuzz::PlainTokens;
using kova::fuzz::require;
using kova::fuzz::Verdict;

// Some rules cost the square of the number of tokens; they are checked on small documents.
constexpr int kSmall = 64;

void check_token(const JsonDoc& doc, int index) {
  const JsonToken& token = doc[index];
  const int length = static_cast<int>(doc.text.size());
  require(token.start >= 0 && token.start <= token.end && token.end <= length,
          "a token lies inside the text");
  require(index == 0 ? token.parent == -1 : token.parent >= 0 && token.parent < index,
          "a parent stands before its children");
  if (index > 0) {
    const JsonToken& parent = doc[token.parent];
    require(parent.type == JsonType::kObject || parent.type == JsonType::kArray,
            "a parent is a container");
    require(token.start > parent.start && token.end < parent.end, "a child lies inside its parent");
  }
  const std::string_view raw = doc.raw(index);
  switch (token.type) {
    case JsonType::kObject:
      require(raw.starts_with('{') && raw.ends_with('}'), "an object has braces");
      break;
    case JsonType::kArray:
      require(raw.starts_with('[') && raw.ends_with(']'), "an array has brackets");
      break;
    case JsonType::kString:
      require(token.start > 0 && doc.text[static_cast<std::size_t>(token.start) - 1] == '"' &&
                  doc.text[static_cast<std::size_t>(token.end)] == '"' && token.size == 0,
              "a string stands between quotation marks");
      break;
    case JsonType::kPrimitive:
      require(!raw.empty() && token.size == 0, "a primitive has text and no children");
      break;
  }
}

void check_children(const JsonDoc& doc, int index) {
  int children = 0;
  const int after = kova::json_skip(doc, index);
  require(after > index && after <= doc.count, "a subtree ends after its root");
  for (int child = index + 1; child < after; child = kova::json_skip(doc, child)) {
    require(doc[child].parent == index, "the skip finds the direct children");
    if (doc[index].type == JsonType::kObject && children % 2 == 0) {
      require(doc[child].type == JsonType::kString, "every other child of an object is a key");
      const int value = kova::json_find(doc, index, doc.raw(child));
      require(value > index && value <= child + 1, "a key is found, the first of its kind");
      require(doc.raw(value - 1) == doc.raw(child), "the found key is the one asked for");
    }
    ++children;
  }
  require(children == doc[index].size, "the size counts the children");
  require(doc[index].type != JsonType::kObject || children % 2 == 0, "keys have values");
}

void check_reparse(const JsonDoc& doc, int index) {
  const std::string_view raw = doc.raw(index);
  const int tokens = kova::json_skip(doc, index) - index;
  std::vector<JsonToken> room(static_cast<std::size_t>(tokens));
  JsonDoc again;
  require(kova::json_parse(raw, room.data(), tokens, again) && again.count == tokens,
          "a value's own text parses, into as many tokens");
  require(tokens == 1 || !kova::json_parse(raw, room.data(), tokens - 1, again),
          "one token of room less is too few");
  require(!kova::json_parse(raw.substr(0, raw.size() - 1), room.data(), tokens, again),
          "a cut container does not parse");
}

/// The text up to an escaped NUL, as the reader gives it; false for a malformed escape before it.
bool read_string(std::string_view raw, std::string& text) {
  JsonStringReader reader(raw);
  for (;;) {
    const int byte = reader.next();
    if (byte < 0) return byte == JsonStringReader::kEnd;
    require(byte >= 1 && byte <= 255, "the reader gives bytes");
    text += static_cast<char>(byte);
  }
}

void check_string(const JsonDoc& doc, int index) {
  const std::string_view raw = doc.raw(index);
  // No escape is shorter than what it stands for.
  std::vector<char> out(raw.size() + 1, 'x');
  std::string read;
  const bool readable = read_string(raw, read);
  if (!kova::json_get_string(doc, index, TextOut(out.data(), out.size()))) {
    return;
  }
  require(readable && read == out.data(), "the reader and the copy agree");
  const bool has_nul = raw.find("\\u0000") != std::string_view::npos;
  if (has_nul) return;
  const std::unique_ptr<char[]> exact(new char[read.size() + 1]);
  require(kova::json_get_string(doc, index, TextOut(exact.get(), read.size() + 1)) &&
              std::memcmp(exact.get(), read.c_str(), read.size() + 1) == 0,
          "a text fits a buffer of its size and its terminator");
  const std::unique_ptr<char[]> small(new char[std::max<std::size_t>(read.size(), 1)]);
  require(read.empty() || !kova::json_get_string(doc, index, TextOut(small.get(), read.size())),
          "a text does not fit a smaller one");
}

void check_scalars(const JsonDoc& doc, int index) {
  std::uint32_t number = 0;
  float real = 0;
  const bool is_number = kova::json_get_unsigned(doc, index, number);
  const bool is_real = kova::json_get_float(doc, index, real);
  if (is_number) {
    require(std::to_string(number) == doc.raw(index), "a whole number reads back as it was");
    require(is_real && real == static_cast<float>(number), "a whole number is a real one too");
  }
  std::vector<char> out(doc.raw(index).size() + 1);
  const bool copied = kova::json_get_scalar_text(doc, index, TextOut(out.data(), out.size()));
  require(doc[index].type == JsonType::kString || (copied && doc.raw(index) == out.data()),
          "everything but a string is copied as it stands");
}

/// The rule of the duplicate keys spelled out: every pair of keys of every object.
bool has_equal_keys(const JsonDoc& doc) {
  for (int a = 1; a < doc.count; ++a) {
    for (int b = a + 1; b < doc.count; ++b) {
      const auto is_key = [&doc](int index) {
        const JsonToken& parent = doc[doc[index].parent];
        if (parent.type != JsonType::kObject) return false;
        int place = 0;
        for (int i = doc[index].parent + 1; i < index; i = kova::json_skip(doc, i)) ++place;
        return place % 2 == 0;
      };
      if (doc[a].parent != doc[b].parent || !is_key(a) || !is_key(b)) continue;
      char first[256];
      char second[256];
      if (kova::json_get_string(doc, a, first) && kova::json_get_string(doc, b, second) &&
          std::strcmp(first, second) == 0) {
        return true;
      }
    }
  }
  return false;
}

/// A real number by std::from_chars. At the ends of a double's and a float's range only what is
/// accepted is compared.
void check_real(const JsonDoc& doc, int index, const PlainToken& plain) {
  const std::string_view raw = doc.raw(index);
  float real = 0;
  const bool is_real = kova::json_get_float(doc, index, real);
  if (!plain.number || raw.size() > 63) {
    require(!is_real, "only numbers of at most 63 characters are real");
    return;
  }
  double expected = 0;
  const auto [end, error] = std::from_chars(raw.data(), raw.data() + raw.size(), expected);
  const double size = std::fabs(expected);
  const bool inside = error == std::errc() && size > 1e-300 && size < 3.4028234e38;
  require(is_real || !inside, "a number within the range is real");
  require(!is_real || real == static_cast<float>(expected), "a real number has one value");
}

/// A token as RapidJSON has it.
void check_same(const JsonDoc& doc, int index, const PlainToken& plain, bool texts) {
  const JsonToken& token = doc[index];
  require(token.type == plain.type && token.size == plain.size, "a token has one type and size");
  std::uint32_t number = 0;
  const bool is_number = kova::json_get_unsigned(doc, index, number);
  require(is_number == (plain.whole && doc.raw(index).size() <= 31), "the same numbers are whole");
  require(!is_number || number == *plain.whole, "a whole number has one value");
  check_real(doc, index, plain);
  if (token.type != JsonType::kString || !texts) return;
  std::vector<char> out(plain.text.size() + 1);
  require(kova::json_get_string(doc, index, TextOut(out.data(), out.size())) &&
              std::memcmp(out.data(), plain.text.c_str(), out.size()) == 0,
          "a string has one decoded text");
}

/// The verdicts, the tokens and, where no surrogate takes part, the texts.
void check_against_plain(std::string_view text, bool parsed, const JsonDoc& doc) {
  bool surrogates = false;
  const std::string plain_text = kova::fuzz::without_surrogates(text, surrogates);
  PlainTokens plain(kova::kMessageTokenCapacity);
  const Verdict verdict = plain.read(plain_text);
  if (verdict == Verdict::kUnknown) return;
  require(parsed == (verdict == Verdict::kGood), "one text is JSON for both");
  if (!parsed) return;
  require(doc.count == static_cast<int>(plain.tokens().size()), "a text has as many tokens");
  for (int index = 0; index < doc.count; ++index) {
    check_same(doc, index, plain.tokens()[static_cast<std::size_t>(index)], !surrogates);
  }
}

}  // namespace

constexpr kova::fuzz::JsonVocabulary kova::fuzz::kJsonVocabulary = {};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static JsonToken tokens[kova::kMessageTokenCapacity];
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  JsonDoc doc;
  const bool parsed = kova::json_parse(text, tokens, kova::kMessageTokenCapacity, doc);
  check_against_plain(text, parsed, doc);
  if (!parsed) return 0;
  const bool small = doc.count <= kSmall;
  for (int index = 0; index < doc.count; ++index) {
    check_token(doc, index);
    check_scalars(doc, index);
    if (doc[index].type == JsonType::kString) check_string(doc, index);
    const bool container =
        doc[index].type == JsonType::kObject || doc[index].type == JsonType::kArray;
    if (container && (small || index < kSmall)) {
      check_children(doc, index);
      check_reparse(doc, index);
    }
  }
  const bool duplicates = kova::has_duplicate_keys(doc);
  require(!small || duplicates == has_equal_keys(doc), "equal keys are found, and nothing else");
  return 0;
}
