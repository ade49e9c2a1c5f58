#include "db/out_buf.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/json_escape.h"
#include "base/string_scan.h"

namespace kova {

namespace {

constexpr std::size_t kFormatCapacity = 128;
constexpr std::size_t kEscapedInputLimit = 16384;

}  // namespace

OutBuf::~OutBuf() {
  std::free(text_);
}

bool OutBuf::append(std::string_view bytes) {
  if (bytes.size() >= kOutBufCapacityLimit - length_) return false;
  const auto size = static_cast<std::uint32_t>(bytes.size());
  const std::uint32_t need = length_ + size + 1;
  if (need > capacity_) {
    std::uint32_t larger = std::max(capacity_, kOutBufInitialCapacity);
    while (larger < need) larger *= 2;
    larger = std::min(larger, kOutBufCapacityLimit);
    auto* grown = static_cast<char*>(std::realloc(text_, larger));
    if (grown == nullptr) return false;
    text_ = grown;
    capacity_ = larger;
  }
  if (size > 0) std::memcpy(text_ + length_, bytes.data(), size);
  length_ += size;
  text_[length_] = '\0';
  return true;
}

bool OutBuf::append_escaped(std::string_view text) {
  const char* p = text.data();
  const char* const end = p + std::min(text.size(), kEscapedInputLimit);
  if (!append("\"")) return false;
  while (p != end) {
    const EscapeProgress progress =
        escape_json(EscapeStyle::kNumeric, p, end, text_ + length_, text_ + capacity_ - 1);
    p = progress.source;
    length_ = static_cast<std::uint32_t>(progress.target - text_);
    text_[length_] = '\0';
    if (p != end && !append_step(p, end)) return false;
  }
  return append("\"");
}

// Appends the next plain run or the next escape, which may need a larger buffer.
bool OutBuf::append_step(const char*& p, const char* end) {
  const char* const stop = find_run_end<NonAscii::kPlain>(p, end);
  if (stop != p) {
    const bool appended = append({p, static_cast<std::size_t>(stop - p)});
    p = stop;
    return appended;
  }
  char escape[kEscapeLimit];
  return append({escape, write_escape(EscapeStyle::kNumeric, *p++, escape)});
}

bool OutBuf::append_formatted(const char* directives, ...) {
  char scratch[kFormatCapacity];
  std::va_list arguments;
  va_start(arguments, directives);
  const int written = std::vsnprintf(scratch, sizeof scratch, directives, arguments);
  va_end(arguments);
  if (written < 0 || static_cast<std::size_t>(written) >= sizeof scratch) return false;
  return append({scratch, static_cast<std::size_t>(written)});
}

char* OutBuf::release() {
  length_ = 0;
  capacity_ = 0;
  return std::exchange(text_, nullptr);
}

}  // namespace kova
