#include "platform/own_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "platform/posix/file_identity.h"

namespace kova {

namespace {

constexpr std::size_t kLinkCapacity = 4096 + 16;
/// What the kernel adds to the path of a file that was removed or replaced.
constexpr std::string_view kRemoved = " (deleted)";

// A file may really have such a name.
bool is_running_executable(const char* path) {
  struct stat running {};
  struct stat named {};
  return ::stat(kRunningExecutable, &running) == 0 && ::stat(path, &named) == 0 &&
         is_same_file(running, named);
}

}  // namespace

bool own_path(TextOut out) {
  char link[kLinkCapacity];
  const ssize_t length = ::readlink(kRunningExecutable, link, sizeof link - 1);
  if (length <= 0) return false;
  link[length] = '\0';
  std::string_view path(link);
  if (path.ends_with(kRemoved) && !is_running_executable(link)) {
    path.remove_suffix(kRemoved.size());
  }
  return out.copy(path);
}

}  // namespace kova
