// The limits of this process, and whether the machine's clock is synchronised.
#pragma once

#include <cstdint>

namespace kova {

enum class ClockState { kSynchronised, kNotSynchronised, kUnknown };

/// Whether the system keeps its clock in step with another one.
[[nodiscard]] ClockState clock_state();

inline constexpr std::uint64_t kNoLimit = UINT64_MAX;

/// What a process of this account may have.
struct ProcessLimits {
  std::uint64_t descriptors;  ///< open files, pipes and sockets in one process
  std::uint64_t processes;    ///< processes of the account, threads counted, where it is limited
};

[[nodiscard]] ProcessLimits process_limits();

}  // namespace kova
