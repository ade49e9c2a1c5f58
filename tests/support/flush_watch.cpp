#include "support/flush_watch.h"

#include <functional>
#include <utility>

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

void FlushWatch::ask() {
  if (!current_question) return;
  ++call_count;
  last_result = current_question();
}

int FlushWatch::calls() {
  return call_count;
}

bool FlushWatch::result() {
  return last_result;
}

}  // namespace kova::testing
