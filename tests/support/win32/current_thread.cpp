#include "support/current_thread.h"

#include <windows.h>

namespace kova::testing {

std::uintptr_t current_thread() {
  return ::GetCurrentThreadId();
}

}  // namespace kova::testing
