#include "approval/replay_marker.h"

#include "platform/file.h"

namespace kova {

namespace {

constexpr std::size_t kMarkerPathCapacity = 768;

}  // namespace

bool consume_nonce(const McpPolicy& policy, std::string_view nonce, TextOut message) {
  char text[kMarkerPathCapacity];
  TextOut path(text);
  if (!path.copy(policy.approval_state_directory) || !path.append(kPathSeparator) ||
      !path.append(nonce) || !path.append(".used")) {
    return refuse(message, "approval replay path is invalid");
  }
  return create_marker_file(text) ||
         refuse(message, "approval token was already used or replay state is unavailable");
}

}  // namespace kova
