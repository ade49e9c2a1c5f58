#include "support/posix/open_files.h"

#include <filesystem>
#include <string>
#include <system_error>

namespace kova::testing {

bool is_open_below(const std::string& folder) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closed_meanwhile;
    const std::string path = std::filesystem::read_symlink(entry.path(), closed_meanwhile);
    if (path.starts_with(folder)) return true;
  }
  return false;
}

}  // namespace kova::testing
