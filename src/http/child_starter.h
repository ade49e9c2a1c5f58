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
  /// `job_refused` is called on the starting thread for each child that ChildProcess::job_refused
  /// tells of; null for nobody.
  explicit ChildStarter(const char* argument, void (*job_refused)() = nullptr)
      : argument_(argument), job_refused_(job_refused) {}
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
  void (*job_refused_)();
  Mutex mutex_;
  Condition changed_;
  Request* request_ = nullptr;
};

}  // namespace kova
