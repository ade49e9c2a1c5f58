#include "base/json_escape.h"

#include <bit>
#include <cstring>

#include "base/ascii.h"
#include "base/string_scan.h"

namespace kova {

namespace {

/// The letter that stands for a byte after the backslash, or 0.
char escape_letter(EscapeStyle style, char byte) {
  switch (byte) {
    case '"':
    case '\\':
      return byte;
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    case '\b':
      return style == EscapeStyle::kShort ? 'b' : '\0';
    case '\f':
      return style == EscapeStyle::kShort ? 'f' : '\0';
    default:
      return '\0';
  }
}

}  // namespace

std::size_t write_escape(EscapeStyle style, char byte, char* target) {
  target[0] = '\\';
  target[1] = escape_letter(style, byte);
  if (target[1] != '\0') return 2;
  const auto value = static_cast<unsigned char>(byte);
  std::memcpy(target + 1, "u00", 3);
  target[4] = kHexDigits[value >> 4];
  target[5] = kHexDigits[value & 0xF];
  return kEscapeLimit;
}

EscapeProgress escape_json(EscapeStyle style, const char* source, const char* source_end,
                           char* target, char* target_end) {
  const auto has_room = [&] {
    return target_end - target >= static_cast<std::ptrdiff_t>(kEscapeSpaceMinimum);
  };
  while (source != source_end && has_room()) {
    std::ptrdiff_t plain = 0;
    bool stopped = false;
    if (source_end - source >= kRunBlock) {
      // The whole block is copied; the next step overwrites what follows the first byte that stops.
      const __m128i block = load_block(source);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(target), block);
      const unsigned stops = run_stops<NonAscii::kPlain>(block);
      stopped = stops != 0;
      plain = stopped ? std::countr_zero(stops) : kRunBlock;
    } else {
      const char* const stop = find_run_end<NonAscii::kPlain>(source, source_end);
      plain = stop - source;
      stopped = stop != source_end;
      std::memcpy(target, source, static_cast<std::size_t>(plain));
    }
    source += plain;
    target += plain;
    if (stopped) target += write_escape(style, *source++, target);
  }
  return {.source = source, .target = target};
}

}  // namespace kova
