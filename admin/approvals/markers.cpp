#include "admin/approvals/markers.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>

#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "base/ascii.h"
#include "base/hex.h"

namespace kova::admin {

namespace {

constexpr std::size_t kNonceDigits = 32;
constexpr std::string_view kSuffix = ".used";

bool is_marker_name(std::string_view name) {
  return name.size() == kNonceDigits + kSuffix.size() && name.ends_with(kSuffix) &&
         is_hex(name.substr(0, kNonceDigits), kNonceDigits);
}

UnixMs unix_ms(std::filesystem::file_time_type time) {
  const auto system = std::chrono::file_clock::to_sys(time);
  return std::chrono::floor<std::chrono::milliseconds>(system).time_since_epoch().count();
}

}  // namespace

std::string lower_case(std::string_view text) {
  std::string lower;
  std::transform(text.begin(), text.end(), std::back_inserter(lower), to_lower);
  return lower;
}

std::vector<Marker> read_markers(const std::string& directory) {
  if (directory.empty()) throw Refusal("the policy names no approval_state_directory");
  std::vector<Marker> markers;
  try {
    for (const auto& entry : std::filesystem::directory_iterator(path_of(directory))) {
      const std::string name = text_of(entry.path().filename());
      if (!is_marker_name(name)) continue;
      markers.push_back({.nonce = lower_case(std::string_view(name).substr(0, kNonceDigits)),
                         .name = name,
                         .time = unix_ms(entry.last_write_time())});
    }
  } catch (const std::filesystem::filesystem_error&) {
    throw Refusal(directory + ": the state directory cannot be read");
  }
  std::sort(markers.begin(), markers.end(), [](const Marker& a, const Marker& b) {
    return a.time != b.time ? a.time < b.time : a.name < b.name;
  });
  return markers;
}

void remove_marker(const std::string& directory, const Marker& marker) {
  std::error_code error;
  if (!std::filesystem::remove(path_of(directory) / path_of(marker.name), error) && error) {
    throw Refusal(marker.name + ": the marker cannot be removed");
  }
}

}  // namespace kova::admin
