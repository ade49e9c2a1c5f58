#include "platform/win32/private_security.h"

#include <sddl.h>

#include <cwchar>

namespace kova {

namespace {

constexpr std::size_t kTokenUserCapacity = 256;
constexpr std::size_t kDescriptorCapacity = 256;

/// The text of the user's security identifier; null when it cannot be had.
wchar_t* own_identifier() {
  HANDLE token = nullptr;
  if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return nullptr;
  alignas(TOKEN_USER) unsigned char buffer[kTokenUserCapacity];
  DWORD size = 0;
  const bool known = ::GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size) != 0;
  ::CloseHandle(token);
  wchar_t* text = nullptr;
  if (!known ||
      ::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text) == 0) {
    return nullptr;
  }
  return text;
}

}  // namespace

PrivateSecurity::PrivateSecurity() {
  attributes_.nLength = sizeof attributes_;
  wchar_t* const user = own_identifier();
  if (user == nullptr) return;
  // A protected list: the user and the system may do everything.
  wchar_t text[kDescriptorCapacity] = L"D:P(A;;FA;;;SY)(A;;FA;;;";
  if (std::wcslen(text) + std::wcslen(user) + 2 <= kDescriptorCapacity) {
    std::wcscat(text, user);
    std::wcscat(text, L")");
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(
        text, SDDL_REVISION_1, &attributes_.lpSecurityDescriptor, nullptr);
  }
  ::LocalFree(user);
}

PrivateSecurity::~PrivateSecurity() {
  ::LocalFree(attributes_.lpSecurityDescriptor);
}

}  // namespace kova
