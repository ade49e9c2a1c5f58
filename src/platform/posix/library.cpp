#include "platform/library.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <string_view>

#include "base/text.h"
#include "platform/environment.h"
#include "platform/own_path.h"

namespace kova {

namespace {

constexpr std::size_t kLibraryPathCapacity = 4096;

void* load_from(std::string_view folder, const char* file_name) {
  char path[kLibraryPathCapacity];
  TextOut out(path);
  if (!out.append(folder) || !out.append('/') || !out.append(file_name)) return nullptr;
  return ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

void* load_from_own_folder(const char* file_name) {
  char own[kLibraryPathCapacity];
  if (!own_path(own)) return nullptr;
  const std::string_view path(own);
  return load_from(slice(path, 0, path.rfind('/')), file_name);
}

}  // namespace

bool Library::open(const char* file_name) {
  handle_ = load_from_own_folder(file_name);
  return handle_ != nullptr || open_in_search_path(file_name);
}

bool Library::open_in_search_path(const char* file_name) {
  const EnvironmentValue search_path("LD_LIBRARY_PATH");
  bool all_absolute = true;
  std::string_view rest = search_path.view();
  while (handle_ == nullptr && !rest.empty()) {
    const std::size_t end = std::min(rest.find_first_of(":;"), rest.size());
    const std::string_view folder = slice(rest, 0, end);
    if (folder.starts_with('/')) {
      handle_ = load_from(folder, file_name);
    } else {
      all_absolute = false;
    }
    // A separator at the very end stands before one more, empty entry.
    if (end + 1 == rest.size()) all_absolute = false;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  // The loader's own search begins with the same variable, in which an empty or relative entry
  // means the current directory; it is asked only when there is none.
  if (handle_ == nullptr && all_absolute) handle_ = ::dlopen(file_name, RTLD_NOW | RTLD_LOCAL);
  return handle_ != nullptr;
}

bool Library::open_in(std::string_view folder, const char* file_name) {
  handle_ = load_from(folder, file_name);
  return handle_ != nullptr;
}

bool Library::path(TextOut out) const {
  link_map* map = nullptr;
  return ::dlinfo(handle_, RTLD_DI_LINKMAP, &map) == 0 && out.copy(map->l_name);
}

void* Library::symbol(const char* name) const {
  return ::dlsym(handle_, name);
}

}  // namespace kova
