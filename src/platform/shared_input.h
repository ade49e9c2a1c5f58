// Reading files that others go on writing, renaming and removing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace kova {

/// Tells a file from every other one of this machine, whatever its names are.
struct FileIdentity {
  std::uint64_t volume;
  std::uint64_t file;

  bool operator==(const FileIdentity&) const = default;
};

/// A file, pipe or device open for reading; hinders nobody else. Closed at destruction.
class SharedInput {
 public:
  SharedInput() = default;
  ~SharedInput() { close(); }
  SharedInput(SharedInput&& other) noexcept : handle_(other.handle_) { other.handle_ = -1; }
  SharedInput& operator=(SharedInput&& other) noexcept;
  SharedInput(const SharedInput&) = delete;
  SharedInput& operator=(const SharedInput&) = delete;

  /// False for a folder and for what cannot be opened.
  [[nodiscard]] bool open(const char* path);
  void close();
  /// Reads the next bytes, at most `size`; `got` is 0 at the end. False on an error.
  [[nodiscard]] bool read(char* data, std::size_t size, std::size_t& got);
  /// Goes on reading at the first byte.
  [[nodiscard]] bool rewind();
  /// In bytes; none for what has no size, or when the system does not tell.
  [[nodiscard]] std::optional<std::uint64_t> size() const;
  [[nodiscard]] bool identity(FileIdentity& identity) const;

 private:
  std::intptr_t handle_ = -1;
};

/// Whether standard error is a terminal.
[[nodiscard]] bool stderr_is_terminal();

}  // namespace kova
