// Whether the terminal shows what is typed.
#pragma once

#include <cstdint>

namespace kova {

/// Keeps the controlling terminal from showing what is typed until destruction. Does nothing
/// without a terminal.
class EchoOff {
 public:
  EchoOff();
  ~EchoOff();
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  std::intptr_t terminal_ = -1;
  std::uint32_t former_ = 0;
};

}  // namespace kova
