// What the unit test program does as a child process of itself on POSIX systems alone.
#pragma once

namespace kova::testing {

/// Starts kChildOrphan and exits with 0 once that runs.
inline constexpr char kChildOrphaning[] = "--child-orphaning";
/// Does not end with its parent. When that has ended, calls prepare_process and then exits with
/// kOrphanWentOn.
inline constexpr char kChildOrphan[] = "--child-orphan";
/// Reads all of standard input and writes how many bytes that pipe can hold, as a line, and what
/// came.
inline constexpr char kChildPipeSize[] = "--child-pipe-size";

inline constexpr int kOrphanWentOn = 7;

}  // namespace kova::testing
