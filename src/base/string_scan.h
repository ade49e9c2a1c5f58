// What may stand in a JSON string: runs of plain bytes, and UTF-8. Both scans look at blocks of
// sixteen bytes with SSE2, which every x86-64 processor has.
//
// A comparison of a block gives 0xFF for each byte that is hit and 0 for the others; the top bits
// of the sixteen bytes, gathered into one number, say which, and its trailing zeros where the
// first one is:
//
//   block     h e l l o " , ...        bits, lowest first     0 0 0 0 0 1 0 ...
//   equal "   0 0 0 0 0 F 0 ...        trailing zeros         5: the run ends at index 5
#pragma once

#include <emmintrin.h>

#include <bit>
#include <cstddef>
#include <string_view>

namespace kova {

/// The bytes of one step.
inline constexpr std::ptrdiff_t kRunBlock = 16;

enum class NonAscii { kPlain, kStops };

/// Whether the byte is a quotation mark, a backslash or a control byte below 0x20, or, if so asked,
/// beyond ASCII.
template <NonAscii kNonAscii>
constexpr bool stops_run(char byte) {
  const auto value = static_cast<signed char>(byte);
  const bool low = kNonAscii == NonAscii::kStops ? value < 0x20 : value < 0x20 && value >= 0;
  return low || byte == '"' || byte == '\\';
}

/// 0xFF for each byte of the block that stops a run.
template <NonAscii kNonAscii>
inline __m128i run_stop_bytes(__m128i block) {
  const __m128i quote = _mm_cmpeq_epi8(block, _mm_set1_epi8('"'));
  const __m128i backslash = _mm_cmpeq_epi8(block, _mm_set1_epi8('\\'));
  // Signed, a byte beyond ASCII is below every control byte; unsigned, above.
  const __m128i low = kNonAscii == NonAscii::kStops
                          ? _mm_cmplt_epi8(block, _mm_set1_epi8(0x20))
                          : _mm_cmpeq_epi8(_mm_min_epu8(block, _mm_set1_epi8(0x1F)), block);
  return _mm_or_si128(_mm_or_si128(quote, backslash), low);
}

/// One bit for each byte of the block that stops a run, the first byte's lowest.
template <NonAscii kNonAscii>
inline unsigned run_stops(__m128i block) {
  return static_cast<unsigned>(_mm_movemask_epi8(run_stop_bytes<kNonAscii>(block)));
}

inline __m128i load_block(const char* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

/// Steps over groups of four blocks in which nothing stops a run, for long texts. Never reads at or
/// beyond `end`.
template <NonAscii kNonAscii>
inline const char* skip_plain_groups(const char* p, const char* end) {
  constexpr std::ptrdiff_t kGroup = 4 * kRunBlock;
  const auto stops_at = [&](std::ptrdiff_t block) {
    return run_stop_bytes<kNonAscii>(load_block(p + block * kRunBlock));
  };
  while (end - p >= kGroup) {
    const __m128i stops = _mm_or_si128(_mm_or_si128(stops_at(0), stops_at(1)),
                                       _mm_or_si128(stops_at(2), stops_at(3)));
    if (_mm_movemask_epi8(stops) != 0) break;
    p += kGroup;
  }
  return p;
}

/// The first byte at or after `p` that stops a run, or `end`. Never reads at or beyond `end`.
template <NonAscii kNonAscii>
inline const char* find_run_end(const char* p, const char* end) {
  while (end - p >= kRunBlock) {
    const unsigned stops = run_stops<kNonAscii>(load_block(p));
    if (stops != 0) return p + std::countr_zero(stops);
    p += kRunBlock;
  }
  while (p != end && !stops_run<kNonAscii>(*p)) ++p;
  return p;
}

/// Judges the UTF-8 (RFC 3629: no overlong form, no surrogate, nothing above U+10FFFF) from `p` on,
/// where a byte beyond ASCII stands and at least one other byte of the same text precedes. Returns
/// a place further on up to which everything is valid: the end, a quotation mark, a backslash or a
/// control byte, or somewhere between two characters. Null when malformed. Never reads at or beyond
/// `end`.
[[nodiscard]] const char* skip_utf8(const char* p, const char* end);

/// At most `limit` bytes of the text, fewer where that would cut a valid UTF-8 character in two.
[[nodiscard]] std::string_view cut_text(std::string_view text, std::size_t limit);

}  // namespace kova
