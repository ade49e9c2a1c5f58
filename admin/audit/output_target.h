// Where a command's result goes: standard output, or a file that appears when it is whole.
#pragma once

#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

namespace kova::admin {

/// With an empty path standard output; otherwise a file of this account, written under another name
/// beside the one that was asked for and renamed by `finish`. Without it nothing is left.
class OutputTarget {
 public:
  /// Throws Refusal when the path names one of the inputs, what is no regular file, or nothing that
  /// can be written.
  OutputTarget(const std::string& path, std::span<const std::string> inputs);
  ~OutputTarget();
  OutputTarget(const OutputTarget&) = delete;
  OutputTarget& operator=(const OutputTarget&) = delete;

  /// Throws Refusal.
  void write(std::string_view text);
  /// Writes what is buffered, and gives the file its name. Throws Refusal.
  void finish();

 private:
  void flush();

  std::string path_;
  std::filesystem::path partial_;
  std::ofstream file_;
  std::string buffer_;
};

}  // namespace kova::admin
