#include "platform/own_path.h"

#include <unistd.h>

namespace kova {

bool own_path(TextOut out) {
  const ssize_t length = ::readlink("/proc/self/exe", out.data(), out.capacity());
  if (length <= 0 || static_cast<std::size_t>(length) >= out.capacity()) return false;
  out.data()[length] = '\0';
  return true;
}

}  // namespace kova
