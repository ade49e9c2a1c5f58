#include "support/random_failure.h"

#include <atomic>

#include "platform/crypto.h"

namespace kova::testing {

// The names that the linker's --wrap gives to random_bytes and to its stand-in. A size has another
// type, and random_bytes therefore another name, on each target.
bool real_random(std::uint8_t* data, std::size_t size) __asm__("__real_" KOVA_RANDOM_BYTES);
bool random(std::uint8_t* data, std::size_t size) __asm__("__wrap_" KOVA_RANDOM_BYTES);

namespace {

std::atomic<bool> failing{false};

}  // namespace

bool random(std::uint8_t* data, std::size_t size) {
  return !failing && real_random(data, size);
}

RandomFailure::RandomFailure() {
  failing = true;
}

RandomFailure::~RandomFailure() {
  failing = false;
}

}  // namespace kova::testing
