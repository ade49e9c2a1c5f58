// Reading what nobody wants.
#pragma once

#include <cstddef>

namespace kova {

/// Bytes that drain asks for at a time.
inline constexpr std::size_t kDrainSize = 4096;

/// Calls `read(buffer, size)`, which returns the number of bytes read, until it returns 0, and
/// drops the bytes.
template <typename Read>
void drain(Read&& read) {
  char dropped[kDrainSize];
  while (read(dropped, sizeof dropped) > 0) {
  }
}

}  // namespace kova
