#include "support/random_failure.h"

#include <atomic>

#include "support/renamed/renamed.h"

namespace kova {
namespace {

std::atomic<bool> failing{false};

}  // namespace

bool random_bytes(std::uint8_t* data, std::size_t size) {
  return !failing && real_random_bytes(data, size);
}

namespace testing {

RandomFailure::RandomFailure() {
  failing = true;
}

RandomFailure::~RandomFailure() {
  failing = false;
}

}  // namespace testing
}  // namespace kova
