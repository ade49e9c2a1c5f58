#include "admin/audit/hashing_thread.h"

#include "admin/common/refusal.h"
#include "base/hex.h"

namespace kova::admin {

namespace {

constexpr const char* kNoDigest = "the system has no SHA-256 to give";

}  // namespace

std::string finished_digest(Sha256Stream& digest) {
  std::uint8_t bytes[kSha256Size];
  char text[2 * kSha256Size + 1];
  if (!digest.finish(bytes)) throw Refusal(kNoDigest);
  write_hex(bytes, text);
  return text;
}

HashingThread::HashingThread() {
  if (!digest_.begin()) throw Refusal(kNoDigest);
  if (!thread_.start(run, this)) throw Refusal("no thread can be started");
}

HashingThread::~HashingThread() {
  {
    const MutexGuard guard(mutex_);
    ends_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void* HashingThread::run(void* self) {
  static_cast<HashingThread*>(self)->work();
  return nullptr;
}

void HashingThread::work() {
  for (;;) {
    std::string_view block;
    {
      const MutexGuard guard(mutex_);
      while (waiting_ == 0 && !ends_) changed_.wait(mutex_);
      if (ends_) return;
      block = queue_[first_];
    }
    const bool added = digest_.add(block);
    const MutexGuard guard(mutex_);
    failed_ = failed_ || !added;
    first_ = (first_ + 1) % kQueueCapacity;
    --waiting_;
    changed_.notify_all();
  }
}

void HashingThread::add(std::string_view block) {
  const MutexGuard guard(mutex_);
  queue_[(first_ + waiting_) % kQueueCapacity] = block;
  ++waiting_;
  changed_.notify_all();
}

void HashingThread::wait_until(std::size_t count) {
  const MutexGuard guard(mutex_);
  while (waiting_ > count) changed_.wait(mutex_);
}

std::string HashingThread::finish() {
  wait_until(0);
  if (failed_) throw Refusal(kNoDigest);
  std::string text = finished_digest(digest_);
  if (!digest_.begin()) throw Refusal(kNoDigest);
  return text;
}

}  // namespace kova::admin
