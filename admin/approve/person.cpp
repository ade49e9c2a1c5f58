#include "admin/approve/person.h"

#include <fmt/format.h>

#include "admin/common/deployment.h"
#include "admin/common/refusal.h"
#include "platform/user.h"

namespace kova::admin {

namespace {

constexpr std::size_t kNameCapacity = 1024;

}  // namespace

std::string deciding_person() {
  char name[kNameCapacity];
  if (!real_user_name(name)) throw Refusal("the name of the user cannot be determined");
  const std::string invoker = deployment_value("SUDO_USER");
  return invoker.empty() ? std::string(name) : fmt::format("{} (as {})", invoker, name);
}

std::string deciding_host() {
  char name[kNameCapacity];
  if (!host_name(name)) throw Refusal("the name of the host cannot be determined");
  return name;
}

}  // namespace kova::admin
