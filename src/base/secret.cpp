#include "base/secret.h"

#include <algorithm>
#include <cstring>

#include "base/ascii.h"

namespace kova {

void wipe(void* data, std::size_t size) {
  std::memset(data, 0, size);
  // The memory is an input of this empty statement, so the zeros must be there.
  __asm__ volatile("" : : "r"(data) : "memory");
}

bool equal_ignoring_case_constant_time(std::string_view a, std::string_view b) {
  const auto byte_at = [](std::string_view text, std::size_t i) {
    return static_cast<unsigned>(
        static_cast<unsigned char>(i < text.size() ? to_lower(text[i]) : 0));
  };
  unsigned differences = a.size() != b.size() ? 1U : 0U;
  for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
    differences |= byte_at(a, i) ^ byte_at(b, i);
  }
  return differences == 0;
}

}  // namespace kova
