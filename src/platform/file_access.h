// Who but its owner may use a file or folder.
#pragma once

namespace kova {

/// Rights by the file's own mode or access list; those of its folders are not looked at.
struct FileAccess {
  bool group_reads;       ///< the file's group; on Windows always false
  bool group_writes;      ///< the same, for changing it
  bool others_read;       ///< everyone; on Windows one of the groups that everyone belongs to
  bool others_write;      ///< the same, for changing the file, its name or its rights
  bool owner_is_trusted;  ///< this process's user, the administrator or the system
};

/// False when the rights cannot be had.
[[nodiscard]] bool file_access(const char* path, FileAccess& access);

}  // namespace kova
