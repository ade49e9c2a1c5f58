// Whether the client of a running statement is still there.
#pragma once

#include <poll.h>

#include <atomic>

namespace kova::sample {

/// Sees when a session's client closes its socket, and when the engine stops. Used by the thread
/// that serves the session.
class ClientWatch {
 public:
  ClientWatch(int socket, const std::atomic<bool>& stopping)
      : socket_(socket), stopping_(stopping) {}

  /// True once the client has closed its side or the engine stops; stays true then.
  [[nodiscard]] bool gone() { return gone_within(0); }

  /// The same, after a wait of at most so long.
  [[nodiscard]] bool gone_within(int milliseconds) {
    if (gone_) return true;
    // The hang-up alone: a request that waits behind the running one does not count.
    pollfd entry{.fd = socket_, .events = POLLRDHUP, .revents = 0};
    gone_ = ::poll(&entry, 1, milliseconds) > 0 || stopping_.load(std::memory_order_relaxed);
    return gone_;
  }

 private:
  int socket_;
  const std::atomic<bool>& stopping_;
  bool gone_ = false;
};

}  // namespace kova::sample
