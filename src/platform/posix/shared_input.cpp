#include "platform/shared_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kova {

namespace {

int descriptor_of(std::intptr_t handle) {
  return static_cast<int>(handle);
}

}  // namespace

SharedInput& SharedInput::operator=(SharedInput&& other) noexcept {
  if (this != &other) {
    close();
    handle_ = other.handle_;
    other.handle_ = -1;
  }
  return *this;
}

bool SharedInput::open(const char* path) {
  close();
  const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) return false;
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode)) {
    ::close(descriptor);
    return false;
  }
  handle_ = descriptor;
  return true;
}

void SharedInput::close() {
  if (handle_ >= 0) ::close(descriptor_of(handle_));
  handle_ = -1;
}

bool SharedInput::read(char* data, std::size_t size, std::size_t& got) {
  ssize_t count = 0;
  do {
    count = ::read(descriptor_of(handle_), data, size);
  } while (count < 0 && errno == EINTR);
  got = count > 0 ? static_cast<std::size_t>(count) : 0;
  return count >= 0;
}

bool SharedInput::rewind() {
  return ::lseek(descriptor_of(handle_), 0, SEEK_SET) == 0;
}

std::optional<std::uint64_t> SharedInput::size() const {
  struct stat status {};
  if (::fstat(descriptor_of(handle_), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  return static_cast<std::uint64_t>(status.st_size);
}

bool SharedInput::identity(FileIdentity& identity) const {
  struct stat status {};
  if (::fstat(descriptor_of(handle_), &status) != 0) return false;
  identity = {.volume = status.st_dev, .file = status.st_ino};
  return true;
}

bool stderr_is_terminal() {
  return ::isatty(STDERR_FILENO) == 1;
}

}  // namespace kova
