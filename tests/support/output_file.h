// A standard output that is a file with a path.
#pragma once

#include <cstdint>
#include <string>

namespace kova::testing {

/// Sends the standard output of the process to a file while it lives. One at a time; it is made
/// when it is not there.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

 private:
  std::intptr_t file_ = -1;
  std::intptr_t original_ = -1;
};

}  // namespace kova::testing
