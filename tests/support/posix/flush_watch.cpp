#include "support/flush_watch.h"

// The names that the linker's --wrap gives to fdatasync and to its stand-in.
extern "C" {
int __real_fdatasync(int descriptor);
int __wrap_fdatasync(int descriptor);
}

int __wrap_fdatasync(int descriptor) {
  kova::testing::FlushWatch::ask();
  return __real_fdatasync(descriptor);
}
