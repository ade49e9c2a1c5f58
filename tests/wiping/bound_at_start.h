// A program of which nothing is bound while it runs.
#pragma once

namespace kova::testing {

/// Returns in a process whose calls into libraries, and the libraries' own, were all bound before
/// main; starts the program again for that where necessary. What is bound at its first call saves
/// the vector registers on the stack, with whatever the last copy of bytes has left in them.
void ensure_bound_at_start(char** arguments);

}  // namespace kova::testing
