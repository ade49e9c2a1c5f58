// What finished calls leave on the stack: their frames are dead, and their bytes are still there
// until another call writes over them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kova::testing {

/// How far below its caller these functions look. Deeper than any call of the system goes.
inline constexpr std::size_t kScannedStack = 512 * 1024;

/// Writes over what earlier calls have left.
__attribute__((noinline)) inline void clear_stack() {
  char area[kScannedStack];
  std::memset(area, 0, sizeof area);
  // The bytes are an input of this empty statement, so they must be written.
  __asm__ volatile("" : : "r"(&area[0]) : "memory");
}

/// Calls the function a little deeper, so that neither the call of stack_holds nor its own frame
/// lies where the function's frame was.
template <typename Function>
__attribute__((noinline)) void run_deeper(Function function) {
  __attribute__((uninitialized)) char distance[4096];
  __asm__ volatile("" : : "r"(&distance[0]) : "memory");
  function();
  __asm__ volatile("" : : "r"(&distance[0]) : "memory");
}

/// Whether the text stands anywhere on the stack below the caller.
__attribute__((noinline)) inline bool stack_holds(std::string_view text) {
  // Exempt from the zeroing of variables, which would hide what is looked for.
  __attribute__((uninitialized)) char area[kScannedStack];
  char* bytes = area;
  // The area is an output of this empty statement: its bytes are taken as they are.
  __asm__ volatile("" : "+r"(bytes) : : "memory");
  return std::string_view(bytes, sizeof area).find(text) != std::string_view::npos;
}

/// Whether an address lies on the stack around the caller.
__attribute__((noinline)) inline bool is_on_stack(const void* address) {
  const char here = 0;
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const auto middle = reinterpret_cast<std::uintptr_t>(&here);
  return at - (middle - kScannedStack) < 2 * kScannedStack;
}

}  // namespace kova::testing
