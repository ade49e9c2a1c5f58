#include "support/flush_watch.h"

#include <windows.h>

// The names that the linker's --wrap gives to the pointer by which a program calls the system's
// library, and to its stand-in.
extern "C" {
extern const decltype(&FlushFileBuffers) __real___imp_FlushFileBuffers;
extern const decltype(&FlushFileBuffers) __wrap___imp_FlushFileBuffers;
}

namespace {

BOOL WINAPI flush_file_buffers(HANDLE file) {
  kova::testing::FlushWatch::ask();
  return __real___imp_FlushFileBuffers(file);
}

}  // namespace

const decltype(&FlushFileBuffers) __wrap___imp_FlushFileBuffers = flush_file_buffers;
