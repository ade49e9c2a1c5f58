#include <algorithm>
#include <cmath>
#include <iterator>
#include <string_view>

#include "base/ascii.h"
#include "base/float_text.h"
#include "base/text.h"
#include "json/json.h"

namespace kova {

namespace {

constexpr std::size_t kUnsignedLengthLimit = 31;
// Below the largest float: what lies within stays finite as one.
constexpr double kFloatLimit = 3.402823466e38;

constexpr std::uint32_t kHighSurrogate = 0xD800;
constexpr std::uint32_t kLowSurrogate = 0xDC00;
constexpr std::uint32_t kSurrogateEnd = 0xE000;

int encode_utf8(std::uint32_t code, unsigned char (&out)[4]) {
  const auto byte = [](std::uint32_t value) { return static_cast<unsigned char>(value); };
  const auto continuation = [&](std::uint32_t shift) {
    return byte(0x80 | ((code >> shift) & 0x3F));
  };
  if (code < 0x80) {
    out[0] = byte(code);
    return 1;
  }
  if (code < 0x800) {
    out[0] = byte(0xC0 | (code >> 6));
    out[1] = continuation(0);
    return 2;
  }
  if (code < 0x10000) {
    out[0] = byte(0xE0 | (code >> 12));
    out[1] = continuation(6);
    out[2] = continuation(0);
    return 3;
  }
  out[0] = byte(0xF0 | (code >> 18));
  out[1] = continuation(12);
  out[2] = continuation(6);
  out[3] = continuation(0);
  return 4;
}

/// What a letter stands for behind a backslash; any other byte stands for itself.
char escaped_byte(char letter) {
  switch (letter) {
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return letter;
  }
}

/// Decodes the escape that begins with the backslash at `position` and steps over it. Returns the
/// number of bytes, 0 for a malformed one.
int decode_escape(std::string_view raw, std::size_t& position, unsigned char (&out)[4]) {
  const auto unicode = [&](std::uint32_t& code) {
    if (raw.size() - position < 6 || raw[position] != '\\' || raw[position + 1] != 'u') {
      return false;
    }
    if (!json_hex4(raw.data() + position + 2, code)) return false;
    position += 6;
    return true;
  };
  if (raw.size() - position < 2) return 0;
  const char kind = raw[position + 1];
  if (kind != 'u') {
    out[0] = static_cast<unsigned char>(escaped_byte(kind));
    position += 2;
    return 1;
  }
  std::uint32_t code = 0;
  if (!unicode(code)) return 0;
  if (code >= kLowSurrogate && code < kSurrogateEnd) return 0;
  if (code >= kHighSurrogate && code < kLowSurrogate) {
    std::uint32_t low = 0;
    if (!unicode(low) || low < kLowSurrogate || low >= kSurrogateEnd) return 0;
    code = 0x10000 + ((code - kHighSurrogate) << 10) + (low - kLowSurrogate);
  }
  return encode_utf8(code, out);
}

/// Reads a decimal without exponent, of at most 15 significant digits and 22 fractional ones; false
/// leaves `number`. Both the digits and the power of ten are exact, so the one division rounds
/// correctly (Clinger, "How to read floating point numbers accurately", 1990).
bool read_short_decimal(std::string_view raw, double& number) {
  constexpr std::uint64_t kMantissaLimit = 1'000'000'000'000'000;
  static constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                            1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                            1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  const std::string_view unsigned_part = slice(raw, raw.starts_with('-') ? 1 : 0);
  const std::size_t point = std::min(unsigned_part.find('.'), unsigned_part.size());
  const std::string_view fraction = slice(unsigned_part, point + 1);
  std::uint64_t mantissa = 0;
  for (const std::string_view digits : {slice(unsigned_part, 0, point), fraction}) {
    for (const char c : digits) {
      if (!is_digit(c) || mantissa >= kMantissaLimit / 10) return false;
      mantissa = mantissa * 10 + static_cast<std::uint64_t>(c - '0');
    }
  }
  if (point == 0 || fraction.size() >= std::size(kPowersOfTen)) return false;
  number = static_cast<double>(mantissa) / kPowersOfTen[fraction.size()];
  if (raw.starts_with('-')) number = -number;
  return true;
}

}  // namespace

bool json_hex4(const char* digits, std::uint32_t& value) {
  // Negative when one of them is no digit.
  const int number = hex_value(digits[0]) << 12 | hex_value(digits[1]) << 8 |
                     hex_value(digits[2]) << 4 | hex_value(digits[3]);
  value = static_cast<std::uint32_t>(number);
  return number >= 0;
}

int json_skip(const JsonDoc& doc, int index) {
  if (index < 0 || index >= doc.count || doc[index].end < 0) return -1;
  const std::int32_t end = doc[index].end;
  int next = index + 1;
  while (next < doc.count && doc[next].start < end) ++next;
  return next;
}

JsonMembers::JsonMembers(const JsonDoc& doc, int object)
    : doc_(doc), object_(object), well_formed_(doc.is(object, JsonType::kObject)) {
  if (well_formed_) stand_at(object + 1);
}

void JsonMembers::advance() {
  stand_at(json_skip(doc_, key_ + 1));
}

void JsonMembers::stand_at(int key) {
  key_ = -1;
  well_formed_ = key >= 0;
  if (key < 0 || key >= doc_.count || doc_[key].start >= doc_[object_].end) return;
  const int value = key + 1;
  well_formed_ = doc_[key].type == JsonType::kString && doc_[key].parent == object_ &&
                 value < doc_.count && doc_[value].parent == object_;
  if (well_formed_) key_ = key;
}

JsonElements::Iterator JsonElements::begin() const {
  if (!doc_.is(array_, JsonType::kArray)) return {doc_, 0, 0};
  return {doc_, array_ + 1, json_skip(doc_, array_)};
}

JsonElements::Iterator& JsonElements::Iterator::operator++() {
  const int next = json_skip(doc_, element_);
  element_ = next >= 0 ? next : end_;
  return *this;
}

int json_find(const JsonDoc& doc, int object, std::string_view key) {
  JsonMembers members(doc, object);
  for (const JsonMember member : members) {
    if (doc.raw(member.key) == key) return member.value;
  }
  return -1;
}

bool json_decode(std::string_view raw, char*& target, const char* target_end) {
  for (std::size_t position = 0;;) {
    const std::string_view run = slice(raw, position, raw.find('\\', position) - position);
    if (static_cast<std::ptrdiff_t>(run.size()) > target_end - target) return false;
    target = std::copy(run.begin(), run.end(), target);
    position += run.size();
    if (position == raw.size()) return true;
    unsigned char bytes[4];
    const int count = decode_escape(raw, position, bytes);
    if (count == 0 || count > target_end - target) return false;
    for (int i = 0; i < count; ++i) *target++ = static_cast<char>(bytes[i]);
  }
}

bool json_get_string(const JsonDoc& doc, int index, TextOut out) {
  if (!doc.is(index, JsonType::kString)) return false;
  const std::string_view raw = doc.raw(index);
  char* target = out.data();
  const bool decoded = json_decode(raw, target, target + out.capacity() - 1);
  *target = '\0';
  return decoded;
}

bool json_get_scalar_text(const JsonDoc& doc, int index, TextOut out) {
  if (index < 0 || index >= doc.count) return false;
  if (doc.is(index, JsonType::kString)) return json_get_string(doc, index, out);
  return out.copy(doc.raw(index));
}

bool json_get_unsigned(const JsonDoc& doc, int index, std::uint32_t& value) {
  if (!doc.is(index, JsonType::kPrimitive)) return false;
  const std::string_view raw = doc.raw(index);
  if (raw.empty() || raw.size() > kUnsignedLengthLimit) return false;
  std::uint64_t number = 0;
  for (const char c : raw) {
    if (!is_digit(c)) return false;
    number = number * 10 + static_cast<std::uint64_t>(c - '0');
    if (number > UINT32_MAX) return false;
  }
  value = static_cast<std::uint32_t>(number);
  return true;
}

bool json_get_float(const JsonDoc& doc, int index, float& value) {
  if (!doc.is(index, JsonType::kPrimitive)) return false;
  const std::string_view raw = doc.raw(index);
  double number = 0;
  if (raw.size() > kFloatTextLimit) return false;
  if (!read_short_decimal(raw, number) && !read_float(raw, number)) return false;
  if (!(std::fabs(number) <= kFloatLimit)) return false;
  // Libraries disagree on whether a result too small for a double is an error; a zero that is not
  // written as one is such a result.
  const std::string_view mantissa = slice(raw, 0, raw.find_first_of("eE"));
  if (number == 0 && mantissa.find_first_of("123456789") != mantissa.npos) return false;
  value = static_cast<float>(number);
  return true;
}

int JsonStringReader::next() {
  if (pending_index_ < pending_count_) return pending_[pending_index_++];
  if (position_ == raw_.size()) return kEnd;
  const char byte = raw_[position_];
  if (byte != '\\') {
    ++position_;
    return static_cast<unsigned char>(byte);
  }
  pending_count_ = decode_escape(raw_, position_, pending_);
  pending_index_ = 1;
  if (pending_count_ == 0) return kMalformed;
  return pending_[0] != 0 ? pending_[0] : kEnd;
}

}  // namespace kova
