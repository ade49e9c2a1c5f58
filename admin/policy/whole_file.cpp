#include "admin/policy/whole_file.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "platform/process.h"

namespace kova::admin {

void write_whole_file(const std::string& path, std::string_view bytes) {
  const std::filesystem::path beside = path_of(fmt::format("{}.{}.part", path, own_process_id()));
  std::ofstream file(beside, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  std::error_code error;
  if (file) std::filesystem::rename(beside, path_of(path), error);
  if (file && !error) return;
  std::error_code ignored;
  std::filesystem::remove(beside, ignored);
  throw Refusal(path + ": the file cannot be written");
}

}  // namespace kova::admin
