// Telling threads apart.
#pragma once

#include <cstdint>

namespace kova::testing {

/// A number that no other running thread has. Allocates nothing.
[[nodiscard]] std::uintptr_t current_thread();

}  // namespace kova::testing
