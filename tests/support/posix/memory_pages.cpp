#include "support/memory_pages.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace kova::testing {

std::size_t page_size() {
  return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

char* map_pages(std::size_t size) {
  void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) std::abort();
  return static_cast<char*>(pages);
}

void forbid_pages(char* start, std::size_t size) {
  if (mprotect(start, size, PROT_NONE) != 0) std::abort();
}

void unmap_pages(char* start, std::size_t size) {
  if (munmap(start, size) != 0) std::abort();
}

}  // namespace kova::testing
