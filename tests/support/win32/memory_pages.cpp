#include "support/memory_pages.h"

#include <windows.h>

#include <cstdlib>

namespace kova::testing {

std::size_t page_size() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwPageSize;
}

char* map_pages(std::size_t size) {
  void* pages = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (pages == nullptr) std::abort();
  return static_cast<char*>(pages);
}

void forbid_pages(char* start, std::size_t size) {
  DWORD before = 0;
  if (!VirtualProtect(start, size, PAGE_NOACCESS, &before)) std::abort();
}

void unmap_pages(char* start, std::size_t) {
  if (!VirtualFree(start, 0, MEM_RELEASE)) std::abort();
}

}  // namespace kova::testing
