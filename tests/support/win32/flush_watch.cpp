#include "support/flush_watch.h"

#include <windows.h>

#include <functional>
#include <utility>

// The names that the linker's --wrap gives to the pointer by which a program calls the system's
// library, and to its stand-in.
extern "C" {
extern const decltype(&FlushFileBuffers) __real___imp_FlushFileBuffers;
extern const decltype(&FlushFileBuffers) __wrap___imp_FlushFileBuffers;
}

namespace kova::testing {
namespace {

std::function<bool()> current_question;
int call_count = 0;
bool last_result = false;

BOOL WINAPI flush_file_buffers(HANDLE file) {
  if (current_question) {
    ++call_count;
    last_result = current_question();
  }
  return __real___imp_FlushFileBuffers(file);
}

}  // namespace

FlushWatch::FlushWatch(std::function<bool()> question) {
  current_question = std::move(question);
  call_count = 0;
  last_result = false;
}

FlushWatch::~FlushWatch() {
  current_question = nullptr;
}

int FlushWatch::calls() {
  return call_count;
}

bool FlushWatch::result() {
  return last_result;
}

}  // namespace kova::testing

const decltype(&FlushFileBuffers) __wrap___imp_FlushFileBuffers = kova::testing::flush_file_buffers;
