// Files: bounded reading, marker files, and the path tests of the policy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova {

/// Whether the path is absolute and in the platform's canonical form: resolving it lexically
/// changes nothing but letter case. The file need not exist. Paths of 1,024 bytes or more fail.
[[nodiscard]] bool is_canonical_path(const char* path);

/// Whether the path names an existing directory.
[[nodiscard]] bool is_directory(const char* path);

/// A regular file open for reading, closed at destruction.
class InputFile {
 public:
  InputFile() = default;
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  [[nodiscard]] bool open(const char* path);
  /// The size in bytes; the largest value when it cannot be had.
  [[nodiscard]] std::uint64_t size() const;
  /// Reads exactly `size` bytes in one read; false on an error or when there are fewer.
  [[nodiscard]] bool read(char* data, std::size_t size);

 private:
  std::intptr_t handle_ = -1;
};

/// The character between the parts of a path.
extern const char kPathSeparator;

/// Creates an empty file that must not exist yet; of several callers at once exactly one succeeds.
/// True only when the file will still be there after a loss of power, where the platform can tell.
[[nodiscard]] bool create_marker_file(const char* path);

}  // namespace kova
