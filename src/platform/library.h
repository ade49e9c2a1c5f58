// Libraries loaded at run time.
#pragma once

#include <string_view>

#include "base/text.h"

namespace kova {

/// A loaded library. It is never unloaded: its code may have left threads behind.
class Library {
 public:
  /// Loads `file_name` from the executable's own folder, then from the absolute entries of the
  /// system's search path, never from the current directory.
  [[nodiscard]] bool open(const char* file_name);
  /// The same without the executable's own folder: for another executable's library.
  [[nodiscard]] bool open_in_search_path(const char* file_name);
  /// Loads `file_name` from one folder and looks nowhere else.
  [[nodiscard]] bool open_in(std::string_view folder, const char* file_name);
  /// The address of an exported function, or null.
  [[nodiscard]] void* symbol(const char* name) const;
  /// Writes the path of the loaded file. False when it cannot be had or does not fit.
  [[nodiscard]] bool path(TextOut out) const;

 private:
  void* handle_ = nullptr;
};

}  // namespace kova
