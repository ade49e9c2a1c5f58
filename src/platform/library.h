// Libraries loaded at run time.
#pragma once

namespace kova {

/// A loaded library. It is never unloaded: its code may have left threads behind.
class Library {
 public:
  /// Loads `file_name` from the executable's own folder, then from the absolute entries of the
  /// system's search path, never from the current directory.
  [[nodiscard]] bool open(const char* file_name);
  /// The address of an exported function, or null.
  [[nodiscard]] void* symbol(const char* name) const;

 private:
  void* handle_ = nullptr;
};

}  // namespace kova
