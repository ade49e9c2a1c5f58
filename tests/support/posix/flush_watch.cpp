#include "support/flush_watch.h"

#include <functional>
#include <utility>

// The names that the linker's --wrap gives to fdatasync and to its stand-in.
extern "C" {
int __real_fdatasync(int descriptor);
int __wrap_fdatasync(int descriptor);
}

namespace kova::testing {
namespace {

std::function<bool()> current_question;
int call_count = 0;
bool last_result = false;

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

int __wrap_fdatasync(int descriptor) {
  using namespace kova::testing;
  if (current_question) {
    ++call_count;
    last_result = current_question();
  }
  return __real_fdatasync(descriptor);
}
