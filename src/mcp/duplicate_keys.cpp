#include "mcp/duplicate_keys.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kova {

namespace {

constexpr std::size_t kComparedKeyCapacity = 256;
constexpr std::size_t kKeyCapacity = kMessageTokenCapacity / 2;
constexpr std::size_t kFewKeys = 32;

bool has_escape(std::string_view raw) {
  return raw.find('\\') != raw.npos;
}

/// FNV-1a, 32 bits, of Fowler, Noll and Vo (the IETF draft "The FNV Non-Cryptographic Hash
/// Algorithm").
std::uint32_t hash_of(std::string_view text) {
  constexpr std::uint32_t kOffsetBasis = 2166136261;
  constexpr std::uint32_t kPrime = 16777619;
  std::uint32_t hash = kOffsetBasis;
  for (const char byte : text) hash = (hash ^ static_cast<unsigned char>(byte)) * kPrime;
  return hash;
}

/// Whether the key takes part: it decodes, into at most 255 bytes. Sets the hash of these.
bool is_compared(const JsonDoc& doc, int key, std::uint32_t& hash) {
  const std::string_view raw = doc.raw(key);
  if (!has_escape(raw)) {
    if (raw.size() >= kComparedKeyCapacity) return false;
    hash = hash_of(raw);
    return true;
  }
  char text[kComparedKeyCapacity];
  if (!json_get_string(doc, key, text)) return false;
  hash = hash_of(text);
  return true;
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

struct Key {
  std::uint32_t hash;
  int token;
};

/// The keys of one object that take part in the comparison.
///
/// The keys are collected as indices of tokens, each with a hash of what it decodes to, and sorted
/// by the hash; keys of one hash by what they decode to. Equal keys then stand side by side, so one
/// look at each neighbour finds them:
///
///   {"b":1, "a":2, "\u0062":3}    collected  1 3 5    sorted  3 1 5    1 and 5 are equal
///
/// That takes n log n comparisons for n keys, nearly all of two numbers; comparing every pair would
/// let one message of 2,000 keys cost two million. Keys that somebody has chosen for their equal
/// hashes cost no more than comparisons of texts. Nothing is allocated: a message has at most
/// kKeyCapacity keys.
class KeySet {
 public:
  /// Takes as many keys as there is room for.
  explicit KeySet(std::span<Key> room) : keys_(room) {}

  /// False for a member that is no pair of a key and a value.
  [[nodiscard]] bool collect(const JsonDoc& doc, int object) {
    JsonMembers members(doc, object);
    for (const JsonMember member : members) {
      if (count_ == keys_.size()) return false;
      Key& next = keys_[count_];
      next.token = member.key;
      if (is_compared(doc, member.key, next.hash)) ++count_;
    }
    return members.well_formed();
  }

  [[nodiscard]] bool has_equal_pair(const JsonDoc& doc) {
    const auto compare = [&](const Key& a, const Key& b) {
      return compare_keys(doc.raw(a.token), doc.raw(b.token));
    };
    Key* const begin = keys_.data();
    Key* const end = begin + count_;
    std::sort(begin, end, [&](const Key& a, const Key& b) {
      return a.hash != b.hash ? a.hash < b.hash : compare(a, b) < 0;
    });
    return std::adjacent_find(begin, end, [&](const Key& a, const Key& b) {
             return a.hash == b.hash && compare(a, b) == 0;
           }) != end;
  }

 private:
  std::span<Key> keys_;
  std::size_t count_ = 0;
};

// Not inlined, so that an object of few keys needs no room on the stack for many.
template <std::size_t kCapacity>
[[gnu::noinline]] bool repeats_a_key(const JsonDoc& doc, int object) {
  Key room[kCapacity];
  KeySet keys(room);
  return !keys.collect(doc, object) || keys.has_equal_pair(doc);
}

}  // namespace

bool has_duplicate_keys(const JsonDoc& doc) {
  for (int token = 0; token < doc.count; ++token) {
    if (doc[token].type != JsonType::kObject) continue;
    const bool few = static_cast<std::size_t>(doc[token].size) <= 2 * kFewKeys;
    if (few ? repeats_a_key<kFewKeys>(doc, token) : repeats_a_key<kKeyCapacity>(doc, token)) {
      return true;
    }
  }
  return false;
}

}  // namespace kova
