#include "support/output_file.h"

#include <windows.h>

#include <cstdlib>
#include <filesystem>

namespace kova::testing {

OutputFile::OutputFile(const std::string& path)
    : original_(reinterpret_cast<std::intptr_t>(GetStdHandle(STD_OUTPUT_HANDLE))) {
  const HANDLE file = CreateFileW(std::filesystem::path(path).c_str(), GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE || !SetStdHandle(STD_OUTPUT_HANDLE, file)) std::abort();
  file_ = reinterpret_cast<std::intptr_t>(file);
}

OutputFile::~OutputFile() {
  SetStdHandle(STD_OUTPUT_HANDLE, reinterpret_cast<HANDLE>(original_));
  CloseHandle(reinterpret_cast<HANDLE>(file_));
}

}  // namespace kova::testing
