#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/text.h"
#include "platform/posix/stored_name.h"

namespace kova {

namespace {

constexpr std::size_t kResolvedPathCapacity = 1024;

int descriptor_of(std::intptr_t handle) {
  return static_cast<int>(handle);
}

// Not blocking: a named pipe is refused, not waited for.
int open_file(const char* path, int flags, mode_t mode) {
  return ::open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
}

bool store_and_close(int descriptor) {
  const bool stored = ::fsync(descriptor) == 0;
  ::close(descriptor);
  return stored;
}

}  // namespace

bool is_canonical_path(const char* path) {
  const std::string_view text(path);
  if (text.size() >= kResolvedPathCapacity || !text.starts_with('/')) return false;
  for (std::size_t slash = 0; slash < text.size();) {
    const std::size_t begin = slash + 1;
    slash = std::min(text.find('/', begin), text.size());
    const std::string_view part = slice(text, begin, slash - begin);
    if (part == "." || part == "..") return false;
    if (part.empty() && slash != text.size()) return false;
  }
  return true;
}

bool is_directory(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

InputFile::~InputFile() {
  if (handle_ >= 0) ::close(descriptor_of(handle_));
}

bool InputFile::open(const char* path) {
  const int descriptor = open_file(path, O_RDONLY, 0);
  if (descriptor < 0) return false;
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(descriptor);
    return false;
  }
  handle_ = descriptor;
  return true;
}

std::uint64_t InputFile::size() const {
  struct stat status {};
  if (::fstat(descriptor_of(handle_), &status) != 0) return UINT64_MAX;
  return static_cast<std::uint64_t>(status.st_size);
}

bool InputFile::read(char* data, std::size_t size) {
  ssize_t got = 0;
  do {
    got = ::read(descriptor_of(handle_), data, size);
  } while (got < 0 && errno == EINTR);
  return got >= 0 && static_cast<std::size_t>(got) == size;
}

constinit const char kPathSeparator = '/';

bool create_marker_file(const char* path) {
  const int file = open_file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
  return file >= 0 && store_and_close(file) && store_name(path);
}

}  // namespace kova
