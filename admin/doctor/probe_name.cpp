#include "admin/doctor/probe_name.h"

#include <fmt/format.h>

#include "platform/clock.h"
#include "platform/crypto.h"
#include "platform/process.h"

namespace kova::admin {

std::string probe_name() {
  std::uint8_t bytes[8];
  // Without random bytes the time does: the creation itself is exclusive.
  if (!random_bytes(bytes, sizeof bytes)) {
    return fmt::format(".kova-admin-{}-{}.probe", own_process_id(), tick_ms());
  }
  std::string name = ".kova-admin-";
  for (const std::uint8_t byte : bytes) name += fmt::format("{:02x}", byte);
  return name + ".probe";
}

}  // namespace kova::admin
