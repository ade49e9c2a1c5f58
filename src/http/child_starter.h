// Starts the server processes of the sessions.
#pragma once

#include "platform/process.h"
#include "platform/thread.h"

namespace kova {

/// Starts children on a thread of its own: the system ends a child together with the thread that
/// has started it, and a connection's thread lives for one request. The object lives as long as
/// the process.
class ChildStarter {
 public:
  /// The children are copies of this executable with that argument, or with none for null.
  explicit ChildStarter(const char* argument) : argument_(argument) {}
  ChildStarter(const ChildStarter&) = delete;
  ChildStarter& operator=(const ChildStarter&) = delete;

  /// Starts the thread.
  [[nodiscard]] bool run();
  /// Starts a child as ChildProcess::start does. Any thread; one child at a time.
  [[nodiscard]] bool start(ChildProcess& child);

 private:
  struct Request {
    ChildProcess& child;
    bool done = false;
    bool started = false;
  };

  static void* serve(void* self);
  void serve_next();

  const char* argument_;
  Mutex mutex_;
  Condition changed_;
  Request* request_ = nullptr;
};

}  // namespace kova
