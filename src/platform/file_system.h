// The file system that a path lies on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kova {

inline constexpr std::size_t kFileSystemNameCapacity = 32;

struct FileSystemFacts {
  char name[kFileSystemNameCapacity];  ///< the system's name of its kind, or a number
  bool is_remote;                      ///< on another machine
  bool is_in_memory;                   ///< gone after a restart
  std::uint64_t free_bytes;            ///< what this account may still write
};

/// Looks at the file system of an existing file or folder. False leaves `facts` undefined.
[[nodiscard]] bool read_file_system(const char* path, FileSystemFacts& facts);

}  // namespace kova
