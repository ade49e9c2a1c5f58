// What must hold for every input of a fuzzer.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace kova::fuzz {

/// Ends the program, which the fuzzer reports with the input, when the rule does not hold.
inline void require(bool holds, const char* rule) {
  if (holds) return;
  std::fprintf(stderr, "broken rule: %s\n", rule);
  std::abort();
}

}  // namespace kova::fuzz
