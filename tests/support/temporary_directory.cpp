#include "support/temporary_directory.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace kova::testing {
namespace {

namespace fs = std::filesystem;

fs::path to_path(std::string_view text) {
  return fs::path(std::u8string(text.begin(), text.end()));
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  const fs::path base = fs::canonical(fs::temp_directory_path());
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    fs::path candidate = base / ("kova-test-" + std::to_string(random()));
    candidate.make_preferred();
    std::error_code error;
    if (!fs::create_directory(candidate, error)) continue;
    const std::u8string text = candidate.u8string();
    path_.assign(text.begin(), text.end());
    return;
  }
  std::abort();
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  fs::remove_all(to_path(path_), error);
}

std::string TemporaryDirectory::file(std::string_view name) const {
  return path_ + static_cast<char>(fs::path::preferred_separator) + std::string(name);
}

void write_file(const std::string& path, std::string_view bytes) {
  std::ofstream file(to_path(path), std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file.flush()) std::abort();
}

std::string read_file(const std::string& path) {
  std::ifstream file(to_path(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace kova::testing
