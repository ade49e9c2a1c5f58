// What the code under test writes to a standard stream.
#pragma once

#include <cstdint>
#include <string>

namespace kova::testing {

enum class Stream { kOutput, kError };

/// Sends one standard stream of the process to a temporary file while it lives. One per stream at
/// a time.
class CapturedOutput {
 public:
  explicit CapturedOutput(Stream stream = Stream::kOutput);
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  /// Everything written since construction, or since the last call of this function.
  [[nodiscard]] std::string take();

 private:
  Stream stream_;
  std::intptr_t file_;
  std::intptr_t original_;
  std::uint64_t taken_ = 0;
};

}  // namespace kova::testing
