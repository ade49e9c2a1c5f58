// The access list of files that belong to one person.
#pragma once

#include <windows.h>

namespace kova {

/// Security attributes that let this process's user and the system do everything and nobody else
/// anything; nothing is inherited.
class PrivateSecurity {
 public:
  PrivateSecurity();
  ~PrivateSecurity();
  PrivateSecurity(const PrivateSecurity&) = delete;
  PrivateSecurity& operator=(const PrivateSecurity&) = delete;

  /// Null when they cannot be made.
  [[nodiscard]] SECURITY_ATTRIBUTES* get() {
    return attributes_.lpSecurityDescriptor != nullptr ? &attributes_ : nullptr;
  }

 private:
  SECURITY_ATTRIBUTES attributes_{};
};

}  // namespace kova
