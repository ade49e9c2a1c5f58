// Whether a statement that runs is still wanted.
#pragma once

#include <atomic>

namespace kova::sample {

/// Watches a session's socket for the client's leaving, and the engine's stop. Used by the thread
/// that serves the session.
class ClientWatch {
 public:
  ClientWatch(int socket, const std::atomic<bool>& stopping)
      : socket_(socket), stopping_(stopping) {}

  /// True once the client has closed its side or the engine stops; stays true then.
  [[nodiscard]] bool gone() { return gone_within(0); }
  /// Waits so long for that.
  [[nodiscard]] bool gone_within(int milliseconds);

 private:
  int socket_;
  const std::atomic<bool>& stopping_;
  bool gone_ = false;
};

}  // namespace kova::sample
