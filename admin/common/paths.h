// Paths as UTF-8, on every platform.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace kova::admin {

[[nodiscard]] inline std::filesystem::path path_of(std::string_view text) {
  return {std::u8string(text.begin(), text.end())};
}

[[nodiscard]] inline std::string text_of(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

}  // namespace kova::admin
