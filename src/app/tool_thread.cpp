#include "app/tool_thread.h"

#include <utility>

#include "platform/clock.h"

namespace kova {

ToolThread::~ToolThread() {
  {
    const MutexGuard guard(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

bool ToolThread::run(ToolJob* job) {
  if (!thread_.joinable() && !thread_.start(serve, this)) return false;
  {
    const MutexGuard guard(mutex_);
    job_ = job;
  }
  changed_.notify_all();
  return true;
}

bool ToolThread::idle_within(std::uint32_t milliseconds) {
  const std::uint64_t start = tick_ms();
  std::uint64_t passed = 0;
  const MutexGuard guard(mutex_);
  while (state_.ToolActive.load() != 0) {
    if (passed >= milliseconds) return false;
    changed_.wait_within(mutex_, static_cast<std::uint32_t>(milliseconds - passed));
    passed = tick_ms() - start;
  }
  return true;
}

void* ToolThread::serve(void* self) {
  auto& thread = *static_cast<ToolThread*>(self);
  while (ToolJob* const job = thread.next_job()) run_tool_job(job);
  return nullptr;
}

/// Null once there will be no more. The last job has ended by now, which idle_within is told.
ToolJob* ToolThread::next_job() {
  const MutexGuard guard(mutex_);
  changed_.notify_all();
  while (job_ == nullptr && !ending_) changed_.wait(mutex_);
  return std::exchange(job_, nullptr);
}

}  // namespace kova
