// The exit codes of every mode but the worker that a cancel has ended.
#pragma once

namespace kova {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 2;

}  // namespace kova
