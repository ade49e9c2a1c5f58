// What the code under test writes to a standard stream.
#pragma once

#include <cstdint>
#include <string>

namespace kova::testing {

enum class Stream { kOutput, kError };

/// Sends one standard stream of the process to a temporary file while it lives. One per stream at
/// a time; other threads may write while one takes.
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
  std::intptr_t file_ = -1;
  std::intptr_t reader_ = -1;
  std::intptr_t original_ = -1;
};

}  // namespace kova::testing
