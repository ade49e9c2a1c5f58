#include "support/child_watch.h"

#include <atomic>

#include "support/renamed/renamed.h"

namespace kova {
namespace {

std::atomic<int> uncollected{0};
std::atomic<std::uint32_t> last_code{0};

}  // namespace

bool ChildProcess::start(const char* argument) {
  const bool started = testing::real_child_start(*this, argument);
  if (started) ++uncollected;
  return started;
}

std::uint32_t ChildProcess::collect() {
  const std::uint32_t code = testing::real_child_collect(*this);
  last_code = code;
  --uncollected;
  return code;
}

namespace testing {

int uncollected_children() {
  return uncollected;
}

std::uint32_t last_exit_code() {
  return last_code;
}

}  // namespace testing
}  // namespace kova
