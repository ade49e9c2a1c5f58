#include "platform/durable_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "platform/posix/stored_name.h"

namespace kova {

namespace {

int descriptor_of(std::intptr_t handle) {
  return static_cast<int>(handle);
}

// A write beyond the limit on the size of files is to fail, not to end the process.
void fail_at_file_limits() {
  std::signal(SIGXFSZ, SIG_IGN);
}

bool lock(int descriptor) {
  int result = 0;
  do {
    result = ::flock(descriptor, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool write_at(int descriptor, std::string_view bytes, off_t offset) {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(descriptor, bytes.data(), bytes.size(), offset);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
    offset += written;
  }
  return true;
}

/// Stands for whatever size the file has.
constexpr std::uint64_t kAnySize = UINT64_MAX;

bool append_locked(int descriptor, const char* path, std::uint64_t size, std::string_view record) {
  const off_t end = ::lseek(descriptor, 0, SEEK_END);
  if (end < 0 || (size != kAnySize && static_cast<std::uint64_t>(end) != size)) return false;
  if (write_at(descriptor, record, end) && ::fsync(descriptor) == 0 &&
      (end > 0 || store_name(path))) {
    return true;
  }
  static_cast<void>(::ftruncate(descriptor, end) == 0);
  return false;
}

bool append(const char* path, std::uint64_t size, std::string_view record) {
  fail_at_file_limits();
  // Not appending by the system: on a full disk the part that was written is taken back. Not
  // blocking: a named pipe is refused, not waited for.
  const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
  if (descriptor < 0) return false;
  const bool appended = lock(descriptor) && append_locked(descriptor, path, size, record);
  ::close(descriptor);
  return appended;
}

}  // namespace

bool append_durably(const char* path, std::string_view record) {
  return append(path, kAnySize, record);
}

bool append_durably_at(const char* path, std::uint64_t size, std::string_view record) {
  return append(path, size, record);
}

PrivateFile::~PrivateFile() {
  close();
}

void PrivateFile::close() {
  if (handle_ >= 0) ::close(descriptor_of(handle_));
  handle_ = -1;
}

bool PrivateFile::create(const char* path) {
  fail_at_file_limits();
  handle_ = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  return handle_ >= 0;
}

bool PrivateFile::store(std::string_view bytes) {
  return write_at(descriptor_of(handle_), bytes, 0) && ::fsync(descriptor_of(handle_)) == 0;
}

}  // namespace kova
