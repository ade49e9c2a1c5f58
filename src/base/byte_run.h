// Finding the next byte that a JSON string cannot hold as it stands, sixteen bytes at a time.
#pragma once

#include <emmintrin.h>

#include <bit>
#include <cstddef>

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

/// One bit for each byte of the block that stops a run, the first byte's lowest.
template <NonAscii kNonAscii>
inline unsigned run_stops(__m128i block) {
  const __m128i quote = _mm_cmpeq_epi8(block, _mm_set1_epi8('"'));
  const __m128i backslash = _mm_cmpeq_epi8(block, _mm_set1_epi8('\\'));
  // Signed, a byte beyond ASCII is below every control byte; unsigned, above.
  const __m128i low = kNonAscii == NonAscii::kStops
                          ? _mm_cmplt_epi8(block, _mm_set1_epi8(0x20))
                          : _mm_cmpeq_epi8(_mm_min_epu8(block, _mm_set1_epi8(0x1F)), block);
  return static_cast<unsigned>(
      _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(quote, backslash), low)));
}

inline __m128i load_block(const char* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
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

}  // namespace kova
