#include "platform/file_probe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace kova {

namespace {

constexpr std::size_t kProbePathCapacity = 1024;

class Descriptor {
 public:
  Descriptor(const char* path, int flags) : number_(::open(path, flags | kAlways, 0600)) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] bool is_open() const { return number_ >= 0; }
  [[nodiscard]] int number() const { return number_; }

 private:
  static constexpr int kAlways = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  int number_;
};

bool is_regular(const Descriptor& file, struct stat& status) {
  return file.is_open() && ::fstat(file.number(), &status) == 0 && S_ISREG(status.st_mode);
}

constexpr int kExclusive = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;

}  // namespace

bool can_append(const char* path) {
  const Descriptor file(path, O_WRONLY | O_APPEND);
  struct stat status {};
  return is_regular(file, status);
}

CreateProbe probe_exclusive_create(const char* folder, const char* name) {
  char path[kProbePathCapacity];
  if (!TextOut(path).format("%s/%s", folder, name)) return CreateProbe::kRefused;
  if (!Descriptor(path, kExclusive).is_open()) return CreateProbe::kRefused;
  const bool twice = Descriptor(path, kExclusive).is_open();
  if (::unlink(path) != 0) return CreateProbe::kLeftBehind;
  return twice ? CreateProbe::kNotExclusive : CreateProbe::kWorks;
}

bool can_sync_folder(const char* folder) {
  const Descriptor opened(folder, O_RDONLY | O_DIRECTORY);
  return opened.is_open() && ::fsync(opened.number()) == 0;
}

bool read_file_end(const char* path, char* data, std::size_t capacity, std::size_t& length) {
  const Descriptor file(path, O_RDONLY);
  struct stat status {};
  if (!is_regular(file, status)) return false;
  const auto wanted = std::min<off_t>(status.st_size, static_cast<off_t>(capacity));
  const ssize_t got =
      ::pread(file.number(), data, static_cast<std::size_t>(wanted), status.st_size - wanted);
  if (got < 0) return false;
  length = static_cast<std::size_t>(got);
  return true;
}

}  // namespace kova
