#include "http/child_starter.h"

namespace kova {

bool ChildStarter::run() {
  return start_detached(serve, this);
}

bool ChildStarter::start(ChildProcess& child) {
  Request request{.child = child};
  const MutexGuard guard(mutex_);
  while (request_ != nullptr) changed_.wait(mutex_);
  request_ = &request;
  changed_.notify_all();
  while (!request.done) changed_.wait(mutex_);
  return request.started;
}

void* ChildStarter::serve(void* self) {
  for (;;) static_cast<ChildStarter*>(self)->serve_next();
}

void ChildStarter::serve_next() {
  mutex_.lock();
  while (request_ == nullptr) changed_.wait(mutex_);
  Request& request = *request_;
  mutex_.unlock();
  request.started = request.child.start(argument_);
  if (request.child.job_refused() && job_refused_ != nullptr) job_refused_();
  const MutexGuard guard(mutex_);
  request.done = true;
  request_ = nullptr;
  changed_.notify_all();
}

}  // namespace kova
