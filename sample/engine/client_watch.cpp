#include "engine/client_watch.h"

#include <poll.h>

namespace kova::sample {

bool ClientWatch::gone_within(int milliseconds) {
  if (gone_) return true;
  // Only the hang-up is asked for: a request that waits behind this one is none.
  pollfd entry{.fd = socket_, .events = POLLRDHUP, .revents = 0};
  gone_ = ::poll(&entry, 1, milliseconds) > 0 || stopping_.load(std::memory_order_relaxed);
  return gone_;
}

}  // namespace kova::sample
