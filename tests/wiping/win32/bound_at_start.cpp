#include "wiping/bound_at_start.h"

namespace kova::testing {

// Windows binds every import when it loads a program.
void ensure_bound_at_start(char** /*arguments*/) {}

}  // namespace kova::testing
