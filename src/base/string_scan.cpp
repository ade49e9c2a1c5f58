#include "base/string_scan.h"

#include <bit>

#include "base/text.h"

namespace kova {

namespace {

constexpr bool is_continuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

/// The length of the sequence at `p`, or 0 when there is none. `p` is before `end`.
int sequence_length(const char* p, const char* end) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(p);
  const unsigned char lead = bytes[0];
  const std::ptrdiff_t left = end - p;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  if (lead < 0xE0) return left >= 2 && is_continuation(bytes[1]) ? 2 : 0;
  if (lead < 0xF0) {
    if (left < 3 || !is_continuation(bytes[1]) || !is_continuation(bytes[2])) return 0;
    if (lead == 0xE0 && bytes[1] < 0xA0) return 0;
    if (lead == 0xED && bytes[1] > 0x9F) return 0;
    return 3;
  }
  if (left < 4 || !is_continuation(bytes[1]) || !is_continuation(bytes[2]) ||
      !is_continuation(bytes[3])) {
    return 0;
  }
  if (lead == 0xF0 && bytes[1] < 0x90) return 0;
  if (lead == 0xF4 && bytes[1] > 0x8F) return 0;
  return 4;
}

__m128i each(unsigned char byte) {
  return _mm_set1_epi8(static_cast<char>(byte));
}

__m128i at_least(__m128i block, unsigned char byte) {
  return _mm_cmpeq_epi8(_mm_max_epu8(block, each(byte)), block);
}

__m128i equal(__m128i block, unsigned char byte) {
  return _mm_cmpeq_epi8(block, each(byte));
}

// Signed comparisons, right for two bytes beyond ASCII. An ASCII byte counts as above all of them;
// that is harmless, since one in the place of a continuation is an error by itself.
__m128i below(__m128i block, unsigned char byte) {
  return _mm_cmplt_epi8(block, each(byte));
}
__m128i above(__m128i block, unsigned char byte) {
  return _mm_cmpgt_epi8(block, each(byte));
}

unsigned bits(__m128i mask) {
  return static_cast<unsigned>(_mm_movemask_epi8(mask));
}

/// One bit for each byte of the block at `p` that is wrong after the three before it.
///
/// Whether a byte must be a continuation is decided by the leads at one, two and three bytes before
/// it, so the same block is loaded at those three places too:
///
///   block             .. E2 82 AC 41     at -1 a lead of two or more (C0..FF), at -2 of three or
///   loaded at -1      ..    E2 82 AC     more (E0..), at -3 of four (F0..): a continuation must
///   loaded at -2      ..       E2 82     follow here, and may stand nowhere else.
///
/// Two checks remain: bytes that no character has (C0, C1, F5 and up), and second bytes out of
/// range after E0, F0 (overlong), ED (surrogates) and F4 (above U+10FFFF).
unsigned wrong_bytes(const char* p, __m128i block) {
  const __m128i before = load_block(p - 1);
  const __m128i due = _mm_or_si128(
      at_least(before, 0xC0),
      _mm_or_si128(at_least(load_block(p - 2), 0xE0), at_least(load_block(p - 3), 0xF0)));
  const __m128i misplaced = _mm_xor_si128(below(block, 0xC0), due);
  const __m128i no_lead =
      _mm_or_si128(equal(_mm_and_si128(block, each(0xFE)), 0xC0), at_least(block, 0xF5));
  unsigned wrong = bits(_mm_or_si128(misplaced, no_lead));
  // Of the characters of two bytes only the lead can be wrong.
  const __m128i longer = at_least(_mm_max_epu8(before, block), 0xE0);
  if (bits(longer) != 0) {
    const __m128i overlong = _mm_or_si128(_mm_and_si128(equal(before, 0xE0), below(block, 0xA0)),
                                          _mm_and_si128(equal(before, 0xF0), below(block, 0x90)));
    const __m128i too_high = _mm_or_si128(_mm_and_si128(equal(before, 0xED), above(block, 0x9F)),
                                          _mm_and_si128(equal(before, 0xF4), above(block, 0x8F)));
    wrong |= bits(_mm_or_si128(overlong, too_high));
  }
  return wrong;
}

/// The first byte of the character that `p` cuts through, or `p` when it cuts none.
const char* character_start(const char* p) {
  const auto byte = [&](int back) { return static_cast<unsigned char>(p[-back]); };
  if (byte(1) >= 0xC0) return p - 1;
  if (byte(2) >= 0xE0) return p - 2;
  return byte(3) >= 0xF0 ? p - 3 : p;
}

}  // namespace

const char* skip_utf8(const char* p, const char* end) {
  // The first character goes alone, so that three bytes precede every block.
  const int first = sequence_length(p, end);
  if (first == 0) return nullptr;
  p += first;
  bool was_ascii = false;
  while (end - p >= kRunBlock) {
    const __m128i block = load_block(p);
    const bool is_ascii = _mm_movemask_epi8(block) == 0;
    const unsigned wrong = is_ascii && was_ascii ? 0 : wrong_bytes(p, block);
    was_ascii = is_ascii;
    const unsigned stops = run_stops<NonAscii::kPlain>(block);
    if (stops != 0) {
      // Bytes after the stop do not count; a character that the stop cuts is wrong at the stop
      // itself.
      const unsigned up_to_stop = stops ^ (stops - 1);
      return (wrong & up_to_stop) == 0 ? p + std::countr_zero(stops) : nullptr;
    }
    if (wrong != 0) return nullptr;
    p += kRunBlock;
  }
  p = character_start(p);
  while (p != end && static_cast<signed char>(*p) < 0) {
    const int length = sequence_length(p, end);
    if (length == 0) return nullptr;
    p += length;
  }
  return p;
}

std::string_view cut_text(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  constexpr std::size_t kContinuationLimit = 3;
  std::size_t lead = limit;
  while (lead > 0 && limit - lead < kContinuationLimit &&
         is_continuation(static_cast<unsigned char>(text[lead]))) {
    --lead;
  }
  const auto length =
      static_cast<std::size_t>(sequence_length(text.data() + lead, text.data() + text.size()));
  return slice(text, 0, lead + length > limit ? lead : limit);
}

}  // namespace kova
