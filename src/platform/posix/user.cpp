#include "platform/user.h"

#include <pwd.h>
#include <unistd.h>

namespace kova {

namespace {

constexpr std::size_t kEntryCapacity = 16384;
constexpr std::size_t kHostCapacity = 256;

}  // namespace

bool real_user_name(TextOut name) {
  const uid_t user = ::getuid();
  passwd entry{};
  passwd* found = nullptr;
  char text[kEntryCapacity];
  if (::getpwuid_r(user, &entry, text, sizeof text, &found) == 0 && found != nullptr) {
    return name.copy(found->pw_name);
  }
  return name.copy("uid ") && name.append_number(user);
}

bool host_name(TextOut name) {
  char text[kHostCapacity];
  if (::gethostname(text, sizeof text) != 0) return false;
  text[sizeof text - 1] = '\0';
  return name.copy(text);
}

}  // namespace kova
