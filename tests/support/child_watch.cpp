#include "support/child_watch.h"

#include <atomic>

#include "platform/process.h"

namespace kova::testing {

// The names that the linker's --wrap gives to a wrapped function and to its stand-in.
bool real_start(ChildProcess* child,
                const char* argument) __asm__("__real__ZN4kova12ChildProcess5startEPKc");
bool start(ChildProcess* child,
           const char* argument) __asm__("__wrap__ZN4kova12ChildProcess5startEPKc");
std::uint32_t real_collect(ChildProcess* child) __asm__("__real__ZN4kova12ChildProcess7collectEv");
std::uint32_t collect(ChildProcess* child) __asm__("__wrap__ZN4kova12ChildProcess7collectEv");

namespace {

std::atomic<int> uncollected{0};
std::atomic<std::uint32_t> last_code{0};

}  // namespace

bool start(ChildProcess* child, const char* argument) {
  const bool started = real_start(child, argument);
  if (started) ++uncollected;
  return started;
}

std::uint32_t collect(ChildProcess* child) {
  const std::uint32_t code = real_collect(child);
  last_code = code;
  --uncollected;
  return code;
}

int uncollected_children() {
  return uncollected;
}

std::uint32_t last_exit_code() {
  return last_code;
}

}  // namespace kova::testing
