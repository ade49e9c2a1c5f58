// What becomes of the child processes of the code under test. The unit tests' own
// ChildProcess::start and ChildProcess::collect stand in for the product's and call them (see
// renamed/renamed.h).
#pragma once

#include <cstdint>

namespace kova::testing {

/// How many were started and not collected yet; the difference of two calls says what was done
/// between them.
[[nodiscard]] int uncollected_children();

/// The exit code of the one that was collected last.
[[nodiscard]] std::uint32_t last_exit_code();

}  // namespace kova::testing
