#include "platform/record_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/clock.h"
#include "platform/posix/file_identity.h"
#include "platform/thread.h"

namespace kova {

namespace {

/// How often a record's file is opened anew because it was replaced; then the record goes into the
/// one that is open.
constexpr int kReopenLimit = 16;

/// Repeats a system call that a signal interrupts.
template <typename Call>
auto uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

bool is_standard_output(const struct stat& file) {
  struct stat output {};
  return ::fstat(STDOUT_FILENO, &output) == 0 && is_same_file(file, output);
}

/// Repeats a system call that signals interrupt, and that another process makes fail with
/// EWOULDBLOCK, until it returns something else or the time is over.
template <typename Call>
int retry_until(std::uint64_t until_ms, Call call) {
  for (Backoff backoff;;) {
    const int result = uninterrupted(call);
    if (result >= 0 || errno != EWOULDBLOCK) return result;
    const std::uint64_t now = tick_ms();
    if (now >= until_ms) return result;
    backoff.pause(static_cast<std::uint32_t>(until_ms - now));
  }
}

/// The file of the records, open for one of them.
class RecordFile {
 public:
  // Not blocking: a named pipe that nobody reads is refused, not waited for. While a file server
  // holds a lease on the file, the system refuses the open and tells the server to give it up.
  RecordFile(const char* path, std::uint64_t until_ms)
      : descriptor_(retry_until(until_ms, [path] {
          constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
          return ::open(path, kFlags, 0600);
        })) {}
  ~RecordFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  RecordFile(const RecordFile&) = delete;
  RecordFile& operator=(const RecordFile&) = delete;
  RecordFile(RecordFile&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  RecordFile& operator=(RecordFile&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }

  /// False also for the process's own standard output.
  [[nodiscard]] bool is_usable() const {
    struct stat file {};
    return descriptor_ >= 0 && ::fstat(descriptor_, &file) == 0 && !is_standard_output(file);
  }

  /// Whether the path still names this file.
  [[nodiscard]] bool has_path(const char* path) const {
    struct stat file {};
    struct stat named {};
    return ::fstat(descriptor_, &file) == 0 && ::stat(path, &named) == 0 &&
           is_same_file(file, named);
  }

  // Polls, because a waiting flock() has no time limit. Gives up without the lock, also on a file
  // system that has no locks.
  void lock(std::uint64_t until_ms) const {
    static_cast<void>(
        retry_until(until_ms, [this] { return ::flock(descriptor_, LOCK_EX | LOCK_NB); }));
  }

  void unlock() const { ::flock(descriptor_, LOCK_UN); }

  void write(std::string_view record) const {
    const ssize_t written = uninterrupted(
        [this, record] { return ::write(descriptor_, record.data(), record.size()); });
    if (written > 0 && static_cast<std::size_t>(written) < record.size()) take_back(written);
  }

  void store() const { ::fdatasync(descriptor_); }

 private:
  // After the write the descriptor's offset is the end of what was written. When the file is
  // longer, another record follows, and nothing is cut off.
  void take_back(ssize_t written) const {
    const off_t end = ::lseek(descriptor_, 0, SEEK_CUR);
    struct stat file {};
    if (end < written || ::fstat(descriptor_, &file) != 0 || file.st_size != end) return;
    static_cast<void>(::ftruncate(descriptor_, end - written) == 0);
  }

  int descriptor_;
};

}  // namespace

// The lock is held around the one write, never while the disk is waited for. While a writer waits,
// the file may be renamed or removed; the record then goes into the one that has the path now, or
// into the renamed one when there is none.
void append_record(const char* path, std::string_view record, std::uint32_t wait_ms) {
  const std::uint64_t until_ms = tick_ms() + wait_ms;
  RecordFile file(path, until_ms);
  if (!file.is_usable()) return;
  file.lock(until_ms);
  for (int reopened = 0; reopened < kReopenLimit && !file.has_path(path); ++reopened) {
    RecordFile next(path, until_ms);
    if (!next.is_usable()) break;
    file = std::move(next);
    file.lock(until_ms);
  }
  file.write(record);
  file.unlock();
  file.store();
}

bool is_standard_output(const char* path) {
  struct stat file {};
  return ::stat(path, &file) == 0 && is_standard_output(file);
}

}  // namespace kova
