// The product's child processes with two functions under other names (see renamed.h).
#define start real_start
#define collect real_collect

#include KOVA_PROCESS_SOURCE

#undef start
#undef collect
#include "support/renamed/renamed.h"

namespace kova::testing {

bool real_child_start(ChildProcess& child, const char* argument) {
  return child.real_start(argument);
}

std::uint32_t real_child_collect(ChildProcess& child) {
  return child.real_collect();
}

}  // namespace kova::testing
