#include "mcp/duplicate_keys.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova {

namespace {

constexpr std::size_t kComparedKeyCapacity = 256;
constexpr int kKeyCapacity = kMessageTokenCapacity / 2;

bool has_escape(std::string_view raw) {
  return raw.find('\\') != raw.npos;
}

/// Whether the key takes part: it decodes, into at most 255 bytes.
bool is_compared(const JsonDoc& doc, int key) {
  const std::string_view raw = doc.raw(key);
  if (!has_escape(raw)) return raw.size() < kComparedKeyCapacity;
  char text[kComparedKeyCapacity];
  return json_get_string(doc, key, text);
}

/// Orders keys by their decoded bytes, decoding no further than the first difference. Keys without
/// escapes are compared as they stand.
int compare_keys(std::string_view a, std::string_view b) {
  if (!has_escape(a) && !has_escape(b)) return a.compare(b);
  JsonStringReader left(a);
  JsonStringReader right(b);
  for (;;) {
    const int left_byte = left.next();
    const int right_byte = right.next();
    if (left_byte != right_byte) return left_byte - right_byte;
    if (left_byte < 0) return 0;
  }
}

/// The keys of one object that take part in the comparison.
///
/// The keys are collected as indices of tokens, two bytes each, and sorted by what they decode to.
/// Equal keys then stand side by side, so one look at each neighbour finds them:
///
///   {"b":1, "a":2, "\u0062":3}    collected  1 3 5    sorted  3 1 5    1 and 5 are equal
///
/// That takes n log n comparisons for n keys; comparing every pair would let one message of 2,000
/// keys cost two million. Nothing is allocated: a message has at most kKeyCapacity keys.
class KeySet {
 public:
  /// False for a member that is no pair of a key and a value.
  [[nodiscard]] bool collect(const JsonDoc& doc, int object) {
    count_ = 0;
    JsonMembers members(doc, object);
    for (const JsonMember member : members) {
      if (count_ == kKeyCapacity) return false;
      if (is_compared(doc, member.key)) keys_[count_++] = static_cast<std::uint16_t>(member.key);
    }
    return members.well_formed();
  }

  [[nodiscard]] bool has_equal_pair(const JsonDoc& doc) {
    const auto compare = [&](std::uint16_t a, std::uint16_t b) {
      return compare_keys(doc.raw(a), doc.raw(b));
    };
    std::uint16_t* const end = keys_ + count_;
    std::sort(keys_, end, [&](auto a, auto b) { return compare(a, b) < 0; });
    return std::adjacent_find(keys_, end, [&](auto a, auto b) { return compare(a, b) == 0; }) !=
           end;
  }

 private:
  std::uint16_t keys_[kKeyCapacity] = {};
  int count_ = 0;
};

}  // namespace

bool has_duplicate_keys(const JsonDoc& doc) {
  KeySet keys;
  for (int token = 0; token < doc.count; ++token) {
    if (doc[token].type != JsonType::kObject) continue;
    if (!keys.collect(doc, token) || keys.has_equal_pair(doc)) return true;
  }
  return false;
}

}  // namespace kova
