// A folder for the files of one test.
#pragma once

#include <string>
#include <string_view>

namespace kova::testing {

/// An empty directory of its own, removed with its files at destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// Its absolute path in the platform's canonical form.
  [[nodiscard]] const std::string& path() const { return path_; }
  /// The path of a file in it.
  [[nodiscard]] std::string file(std::string_view name) const;

 private:
  std::string path_;
};

void write_file(const std::string& path, std::string_view bytes);
/// Everything in the file; empty when it does not exist.
[[nodiscard]] std::string read_file(const std::string& path);

}  // namespace kova::testing
