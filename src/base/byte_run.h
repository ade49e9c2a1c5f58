// Finding the next byte that a JSON string cannot hold as it stands, sixteen bytes at a time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kova {

enum class NonAscii { kPlain, kStops };

/// Whether the byte is a quotation mark, a backslash or a control byte below 0x20, or, if so asked,
/// beyond ASCII.
template <NonAscii kNonAscii>
constexpr bool stops_run(char byte) {
  const auto value = static_cast<signed char>(byte);
  const bool low = kNonAscii == NonAscii::kStops ? value < 0x20 : value < 0x20 && value >= 0;
  return low || byte == '"' || byte == '\\';
}

/// The first byte at or after `p` that stops a run, or `end`. Never reads at or beyond `end`.
template <NonAscii kNonAscii>
inline const char* find_run_end(const char* p, const char* end) {
  using Bytes = signed char __attribute__((vector_size(16)));
  static_assert(std::endian::native == std::endian::little);
  while (end - p >= 16) {
    Bytes block;
    std::memcpy(&block, p, sizeof block);
    auto stops = (block < 0x20) | (block == '"') | (block == '\\');
    if constexpr (kNonAscii == NonAscii::kPlain) stops &= block >= 0;
    std::uint64_t halves[2];
    std::memcpy(halves, &stops, sizeof halves);
    if ((halves[0] | halves[1]) != 0) {
      return halves[0] != 0 ? p + std::countr_zero(halves[0]) / 8
                            : p + 8 + std::countr_zero(halves[1]) / 8;
    }
    p += 16;
  }
  while (p != end && !stops_run<kNonAscii>(*p)) ++p;
  return p;
}

}  // namespace kova
