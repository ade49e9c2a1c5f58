#include "support/posix/sync_failure.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>

// The names that the linker's --wrap gives to fsync and to its stand-in.
extern "C" {
int __real_fsync(int descriptor);
int __wrap_fsync(int descriptor);
}

namespace kova::testing {
namespace {

std::atomic<int> countdown{0};
std::atomic<int> error_number{EIO};
std::atomic<Synced> failed_one{Synced::kNothing};

Synced kind_of(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return Synced::kNothing;
  return S_ISDIR(status.st_mode) ? Synced::kDirectory : Synced::kFile;
}

}  // namespace

SyncFailure::SyncFailure(int nth, int error) {
  error_number = error;
  failed_one = Synced::kNothing;
  countdown = nth;
}

SyncFailure::~SyncFailure() {
  countdown = 0;
}

Synced SyncFailure::failed() {
  return failed_one;
}

}  // namespace kova::testing

int __wrap_fsync(int descriptor) {
  using namespace kova::testing;
  if (countdown == 0 || --countdown != 0) return __real_fsync(descriptor);
  failed_one = kind_of(descriptor);
  errno = error_number;
  return -1;
}
