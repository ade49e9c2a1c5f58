// Files and folders that this account alone may use.
#pragma once

#include <string_view>

namespace kova {

/// Makes a folder for this account alone; it must not exist.
[[nodiscard]] bool make_private_folder(const char* path);

/// Who may start a file as a program.
enum class FileUse { kData, kProgram };

/// Writes a file that must not exist yet, for this account alone, and sends it to the disk. False
/// leaves no file of that name, unless there was one.
[[nodiscard]] bool write_private_file(const char* path, std::string_view bytes, FileUse use);

/// Gives a file or folder another name on the same file system; false when there is one of that
/// name already.
[[nodiscard]] bool move_without_replacing(const char* from, const char* to);

/// Whether there is anything of that name, a link that leads nowhere included.
[[nodiscard]] bool path_exists(const char* path);

}  // namespace kova
