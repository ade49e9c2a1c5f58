// A SHA-256 that is computed beside the reading.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/digest_stream.h"
#include "platform/thread.h"

namespace kova::admin {

/// Hashes blocks on a thread of its own, in order. The caller gives a block away with `add` and may
/// change its bytes again once `wait_until` has returned for it.
class HashingThread {
 public:
  /// Throws Refusal when there is no digest or no thread.
  HashingThread();
  ~HashingThread();
  HashingThread(const HashingThread&) = delete;
  HashingThread& operator=(const HashingThread&) = delete;

  /// At most kQueueCapacity blocks may be waiting.
  void add(std::string_view block);
  /// Returns when at most `count` blocks are waiting.
  void wait_until(std::size_t count);
  /// The digest of all blocks as lower-case hexadecimal text; the next block begins a new one.
  /// Throws Refusal.
  [[nodiscard]] std::string finish();

  static constexpr std::size_t kQueueCapacity = 8;

 private:
  static void* run(void* self);
  void work();

  Sha256Stream digest_;
  Thread thread_;
  Mutex mutex_;
  Condition changed_;
  std::string_view queue_[kQueueCapacity];
  std::size_t first_ = 0;
  std::size_t waiting_ = 0;
  bool failed_ = false;
  bool ends_ = false;
};

/// The digest that was finished, as lower-case hexadecimal text. Throws Refusal.
[[nodiscard]] std::string finished_digest(Sha256Stream& digest);

}  // namespace kova::admin
