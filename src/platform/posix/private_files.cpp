#include "platform/private_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace kova {

namespace {

bool write_all(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// Where the system or the file system knows no such call, a link is refused for a name that is in
// use. A folder cannot be linked; it replaces an empty folder at most.
bool move_by_link(const char* from, const char* to) {
  struct stat status {};
  if (::lstat(from, &status) != 0) return false;
  if (S_ISDIR(status.st_mode)) return !path_exists(to) && ::rename(from, to) == 0;
  return ::link(from, to) == 0 && ::unlink(from) == 0;
}

}  // namespace

bool make_private_folder(const char* path) {
  return ::mkdir(path, 0700) == 0;
}

bool write_private_file(const char* path, std::string_view bytes, FileUse use) {
  const mode_t mode = use == FileUse::kProgram ? 0700 : 0600;
  const int file = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
  if (file < 0) return false;
  bool written = write_all(file, bytes) && ::fsync(file) == 0;
  written = ::close(file) == 0 && written;
  if (!written) ::unlink(path);
  return written;
}

bool move_without_replacing(const char* from, const char* to) {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
  return (errno == ENOSYS || errno == EINVAL) && move_by_link(from, to);
}

bool path_exists(const char* path) {
  struct stat status {};
  return ::lstat(path, &status) == 0;
}

}  // namespace kova
