// Which file a path or descriptor stands for.
#pragma once

#include <sys/stat.h>

namespace kova {

/// The file that this process runs, even after another one was installed at its path.
inline constexpr const char* kRunningExecutable = "/proc/self/exe";

/// Whether both describe one file, whatever its names are.
inline bool is_same_file(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace kova
