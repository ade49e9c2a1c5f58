#include "wiping/bound_at_start.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kova::testing {

void ensure_bound_at_start(char** arguments) {
  constexpr char kBindNow[] = "LD_BIND_NOW";
  const char* const set = std::getenv(kBindNow);
  if (set != nullptr && *set != '\0') return;
  setenv(kBindNow, "1", 1);
  execv("/proc/self/exe", arguments);
  std::perror("the test program cannot be started again");
  std::exit(1);
}

}  // namespace kova::testing
