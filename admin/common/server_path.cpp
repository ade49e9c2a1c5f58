#include "admin/common/server_path.h"

#include "admin/common/refusal.h"
#include "base/text.h"
#include "platform/file.h"
#include "platform/own_path.h"

namespace kova::admin {

namespace {

constexpr std::size_t kOwnPathTextCapacity = 4096;

}  // namespace

std::string own_executable() {
  char path[kOwnPathTextCapacity];
  if (!own_path(path)) throw Refusal("the path of kova-admin cannot be had");
  return path;
}

std::string server_beside() {
  const std::string own = own_executable();
  const std::size_t name = own.rfind(kPathSeparator) + 1;
  // The ending of an executable's name is the platform's.
  const std::size_t ending = own.find('.', name);
  return own.substr(0, name) + "kova-mcp" + (ending == std::string::npos ? "" : own.substr(ending));
}

}  // namespace kova::admin
