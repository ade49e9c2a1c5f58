#include "platform/posix/stored_name.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/text.h"

namespace kova {

namespace {

constexpr std::size_t kFolderCapacity = 1024;

bool is_folder_stored(int descriptor) {
  return ::fsync(descriptor) == 0 || errno == EINVAL || errno == ENOTSUP;
}

}  // namespace

bool store_name(const char* path) {
  char folder[kFolderCapacity];
  const std::string_view text(path);
  const std::size_t slash = text.rfind('/');
  if (!TextOut(folder).copy(slash == text.npos ? "./" : slice(text, 0, slash + 1))) return false;
  const int descriptor = ::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool stored = is_folder_stored(descriptor);
  ::close(descriptor);
  return stored;
}

}  // namespace kova
