// What libFuzzer calls and offers to a mutator of our own (clang's documentation of libFuzzer,
// "Structure-aware fuzzing").
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

extern "C" {
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed);
std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t first_size,
                                      const std::uint8_t* second, std::size_t second_size,
                                      std::uint8_t* out, std::size_t max_size, unsigned seed);
}

namespace kova::fuzz {

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Writes as much of a text as fits and returns its size.
inline std::size_t give(std::string_view text, std::uint8_t* out, std::size_t max_size) {
  const std::size_t size = text.size() < max_size ? text.size() : max_size;
  if (size > 0) std::memcpy(out, text.data(), size);
  return size;
}

}  // namespace kova::fuzz
