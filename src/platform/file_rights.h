// Who owns a file or folder, and which accounts the system lets read and change it.
#pragma once

#include <cstddef>

namespace kova {

inline constexpr std::size_t kAccountNameCapacity = 128;

/// What the system's rules say of one file or folder. "Group" is every account that is named beside
/// the owner and the administrators; "others" is everybody.
struct FileRights {
  char owner[kAccountNameCapacity];  ///< its name, or its number when it has none
  char group[kAccountNameCapacity];  ///< the first such group; empty when there is none
  bool is_directory;
  bool owner_is_trusted;  ///< this account or an administrator
  bool group_reads;
  bool group_writes;    ///< changes the file, adds to the folder
  bool group_replaces;  ///< removes, renames or takes over what lies in the folder
  bool others_read;
  bool others_write;
  bool others_replace;
};

/// Reads the rights of what the path names, following links. False leaves `rights` undefined: the
/// path names nothing, or the system does not say.
[[nodiscard]] bool read_file_rights(const char* path, FileRights& rights);

}  // namespace kova
