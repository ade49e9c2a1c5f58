// The system's cryptography (CNG).
#pragma once

#include <windows.h>
// After windows.h, whose types it uses.
#include <bcrypt.h>

#include "platform/win32/system_library.h"

namespace kova {

/// CNG's functions, loaded when they are first needed: a tool call that signs nothing does not pay
/// for them.
struct Cng {
  decltype(&::BCryptOpenAlgorithmProvider) open;
  decltype(&::BCryptGetProperty) get_property;
  decltype(&::BCryptCreateHash) create_hash;
  decltype(&::BCryptHashData) hash_data;
  decltype(&::BCryptFinishHash) finish_hash;
  decltype(&::BCryptDestroyHash) destroy_hash;
  decltype(&::BCryptCloseAlgorithmProvider) close;
  decltype(&::BCryptGenRandom) random;

  /// False when one of them is missing.
  [[nodiscard]] bool load() {
    const SystemLibrary library(L"bcrypt.dll");
    return library.find("BCryptOpenAlgorithmProvider", open) &&
           library.find("BCryptGetProperty", get_property) &&
           library.find("BCryptCreateHash", create_hash) &&
           library.find("BCryptHashData", hash_data) &&
           library.find("BCryptFinishHash", finish_hash) &&
           library.find("BCryptDestroyHash", destroy_hash) &&
           library.find("BCryptCloseAlgorithmProvider", close) &&
           library.find("BCryptGenRandom", random);
  }
};

}  // namespace kova
