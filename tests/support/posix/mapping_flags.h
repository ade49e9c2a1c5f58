// What the kernel notes of this process's mappings.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

namespace kova::testing {

/// Whether the kernel can give large pages.
inline bool has_large_pages() {
  return ::access("/sys/kernel/mm/transparent_hugepage/enabled", F_OK) == 0;
}

/// The line of flags, between blanks, of the mapping at an address; empty for none: " wr " is for
/// writable ones, " hg " for those that large pages are wanted in.
inline std::string flags_of(const char* at) {
  std::ifstream maps("/proc/self/smaps");
  const auto address = reinterpret_cast<std::uintptr_t>(at);
  bool found = false;
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = '\0';
    std::istringstream range(line);
    if (range >> std::hex >> begin >> dash >> end && dash == '-') {
      found = begin <= address && address < end;
    } else if (found && line.starts_with("VmFlags:")) {
      return line + ' ';
    }
  }
  return "";
}

}  // namespace kova::testing
