#include "base/secret.h"

#include <cstring>

namespace kova {

void wipe(void* data, std::size_t size) {
  std::memset(data, 0, size);
  // The memory is an input of this empty statement, so the zeros must be there.
  __asm__ volatile("" : : "r"(data) : "memory");
}

}  // namespace kova
