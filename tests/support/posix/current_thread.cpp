#include "support/current_thread.h"

#include <pthread.h>

namespace kova::testing {

std::uintptr_t current_thread() {
  return ::pthread_self();
}

}  // namespace kova::testing
