#include "base/secret.h"

#include <algorithm>
#include <cstring>

#include "base/ascii.h"

namespace kova {

namespace {

unsigned byte_at(std::string_view text, std::size_t i) {
  return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
}

unsigned lower_at(std::string_view text, std::size_t i) {
  return i < text.size() ? static_cast<unsigned char>(to_lower(text[i])) : 0U;
}

/// Compares every position up to the longer length, also after a difference.
bool equal_throughout(std::string_view a, std::string_view b,
                      unsigned (*unit_at)(std::string_view text, std::size_t i)) {
  unsigned differences = a.size() != b.size() ? 1U : 0U;
  for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
    differences |= unit_at(a, i) ^ unit_at(b, i);
  }
  return differences == 0;
}

}  // namespace

void wipe(void* data, std::size_t size) {
  std::memset(data, 0, size);
  // An empty statement that may read the memory, so the compiler must keep the zeros.
  __asm__ volatile("" : : "r"(data) : "memory");
}

bool equal_ignoring_case_constant_time(std::string_view a, std::string_view b) {
  return equal_throughout(a, b, lower_at);
}

bool equal_constant_time(std::string_view a, std::string_view b) {
  return equal_throughout(a, b, byte_at);
}

}  // namespace kova
