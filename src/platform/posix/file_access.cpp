#include "platform/file_access.h"

#include <sys/stat.h>
#include <unistd.h>

namespace kova {

bool file_access(const char* path, FileAccess& access) {
  struct stat status {};
  if (::stat(path, &status) != 0) return false;
  access = {.group_reads = (status.st_mode & S_IRGRP) != 0,
            .group_writes = (status.st_mode & S_IWGRP) != 0,
            .others_read = (status.st_mode & S_IROTH) != 0,
            .others_write = (status.st_mode & S_IWOTH) != 0,
            .owner_is_trusted = status.st_uid == 0 || status.st_uid == ::getuid()};
  return true;
}

}  // namespace kova
