// Files of their owner alone whose contents survive a loss of power.
#pragma once

#include <cstdint>
#include <string_view>

namespace kova {

/// Appends one record to the file and stores it before it returns; creates the file when it is
/// absent. Waits for other writers of this function, so that records never interleave and none is
/// dropped. False when the record is not stored for good; what was written of it is taken back.
[[nodiscard]] bool append_durably(const char* path, std::string_view record);

/// The same, but only while the file has `size` bytes (0 also stands for one that is absent).
/// False, too, when another writer came first; nothing is written then.
[[nodiscard]] bool append_durably_at(const char* path, std::uint64_t size, std::string_view record);

/// A new file that its owner alone may read, closed at destruction.
class PrivateFile {
 public:
  PrivateFile() = default;
  ~PrivateFile();
  PrivateFile(const PrivateFile&) = delete;
  PrivateFile& operator=(const PrivateFile&) = delete;

  /// Creates the file, which must not exist in whatever form.
  [[nodiscard]] bool create(const char* path);
  /// Replaces the first bytes of the file and stores them. Bytes over others that were stored need
  /// no further space on the disk.
  [[nodiscard]] bool store(std::string_view bytes);
  void close();

 private:
  std::intptr_t handle_ = -1;
};

}  // namespace kova
