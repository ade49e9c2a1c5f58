#include "engine/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/secret.h"
#include "platform/clock.h"

namespace kova::sample {

namespace {

// False at the time limit; true when something happened, an error included.
bool wait_for(int socket, short events, std::uint64_t until) {
  pollfd entry{.fd = socket, .events = events, .revents = 0};
  for (;;) {
    const std::uint64_t now = tick_ms();
    if (until != 0 && now >= until) return false;
    const int left = until == 0 ? -1 : static_cast<int>(until - now);
    const int ready = ::poll(&entry, 1, left);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

}  // namespace

bool Channel::wait_readable(std::uint64_t until) const {
  return wait_for(socket_, POLLIN, until);
}

bool Channel::read_exactly(char* data, std::size_t size, std::uint64_t until) const {
  while (size > 0) {
    const ssize_t got = ::recv(socket_, data, size, MSG_DONTWAIT);
    if (got > 0) {
      data += got;
      size -= static_cast<std::size_t>(got);
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR) || !wait_readable(until)) {
      return false;
    }
  }
  return true;
}

Channel::Received Channel::receive(std::uint64_t begin_by, wire::Type& type) {
  if (!wait_readable(begin_by)) return Received::kGone;
  const std::uint64_t until = tick_ms() + timeout_ms_;
  char header_bytes[wire::kHeaderSize];
  if (!read_exactly(header_bytes, sizeof header_bytes, until)) return Received::kGone;
  const wire::Header header = wire::decode_header(header_bytes);
  if (header.size > wire::kRequestLimit) return Received::kTooLarge;
  type = header.type;
  payload_.resize(header.size);
  return read_exactly(payload_.data(), header.size, until) ? Received::kFrame : Received::kGone;
}

void Channel::wipe_payload() {
  wipe(payload_.data(), payload_.size());
}

bool Channel::send(std::string_view frame) const {
  const std::uint64_t until = tick_ms() + timeout_ms_;
  while (!frame.empty()) {
    const ssize_t sent = ::send(socket_, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      frame.remove_prefix(static_cast<std::size_t>(sent));
    } else if ((errno != EAGAIN && errno != EINTR) || !wait_for(socket_, POLLOUT, until)) {
      return false;
    }
  }
  return true;
}

}  // namespace kova::sample
