// Telling threads apart, and what they cost.
#pragma once

#include <cstdint>

namespace kova::testing {

/// A number that no other running thread has. Allocates nothing.
[[nodiscard]] std::uintptr_t current_thread();

/// The processor time that the calling thread has used, in microseconds.
[[nodiscard]] std::uint64_t thread_processor_us();

}  // namespace kova::testing
