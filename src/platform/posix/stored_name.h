// The names of new files, which their folders hold.
#pragma once

namespace kova {

/// Sends the name of a new file to the disk: it is stored with its folder, not with the file. False
/// when that fails. A file system that cannot sync folders (EINVAL, ENOTSUP) stores names in its
/// own way, which counts as stored.
[[nodiscard]] bool store_name(const char* path);

}  // namespace kova
