// Tries what a server will need of files and folders, and changes and leaves nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/text.h"

namespace kova {

/// Whether this account may append to an existing regular file. Its size and times stay, and no
/// other writer is kept out meanwhile.
[[nodiscard]] bool can_append(const char* path);

enum class CreateProbe {
  kWorks,         ///< a file was created, its second creation was refused, and it is gone again
  kRefused,       ///< no file can be created
  kNotExclusive,  ///< an existing file was created a second time
  kLeftBehind,    ///< it was created and cannot be removed
};

/// Tries the exclusive creation of a file in a folder. `name` is a file name that is not in use.
[[nodiscard]] CreateProbe probe_exclusive_create(const char* folder, const char* name);

/// Whether the folder's list of names can be sent to the disk; true where the system has no such
/// call and stores names by itself.
[[nodiscard]] bool can_sync_folder(const char* folder);

/// Reads the end of a file, at most `capacity` bytes, without keeping a writer out. The number of
/// bytes; 0 for an empty file. False when it cannot be read.
[[nodiscard]] bool read_file_end(const char* path, char* data, std::size_t capacity,
                                 std::size_t& length);

}  // namespace kova
