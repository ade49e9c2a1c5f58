// What the unit test program does as a child process of itself on Windows alone.
#pragma once

namespace kova::testing {

/// Writes the system's names of its standard input and of its standard output, a line each.
inline constexpr char kChildStreamNames[] = "--child-stream-names";

}  // namespace kova::testing
