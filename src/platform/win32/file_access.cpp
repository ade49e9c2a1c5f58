#include "platform/file_access.h"

#include <windows.h>

#include <aclapi.h>

#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr WELL_KNOWN_SID_TYPE kOthers[] = {
    WinWorldSid,     WinAuthenticatedUserSid, WinBuiltinUsersSid, WinBuiltinGuestsSid,
    WinAnonymousSid, WinInteractiveSid,       WinNetworkSid};
constexpr WELL_KNOWN_SID_TYPE kTrusted[] = {WinLocalSystemSid, WinBuiltinAdministratorsSid};

constexpr DWORD kReading = FILE_READ_DATA | GENERIC_READ | GENERIC_ALL;
constexpr DWORD kWriting = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD | DELETE |
                           WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;

template <std::size_t N>
bool is_one_of(const WELL_KNOWN_SID_TYPE (&types)[N], PSID identifier) {
  for (const WELL_KNOWN_SID_TYPE type : types) {
    if (::IsWellKnownSid(identifier, type) != 0) return true;
  }
  return false;
}

bool is_own(PSID identifier) {
  HANDLE token = nullptr;
  if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return false;
  alignas(TOKEN_USER) unsigned char buffer[256];
  DWORD size = 0;
  const bool known = ::GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size) != 0;
  ::CloseHandle(token);
  return known && ::EqualSid(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, identifier) != 0;
}

void add_allowed(const ACL* list, FileAccess& access) {
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (::GetAce(const_cast<ACL*>(list), i, &entry) == 0) continue;
    auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    if (allowed->Header.AceType != ACCESS_ALLOWED_ACE_TYPE ||
        (allowed->Header.AceFlags & INHERIT_ONLY_ACE) != 0 ||
        !is_one_of(kOthers, &allowed->SidStart)) {
      continue;
    }
    access.others_read |= (allowed->Mask & kReading) != 0;
    access.others_write |= (allowed->Mask & kWriting) != 0;
  }
}

}  // namespace

bool file_access(const char* path, FileAccess& access) {
  wchar_t wide[kWideCapacity];
  PSID owner = nullptr;
  ACL* list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!to_wide(path, wide) ||
      ::GetNamedSecurityInfoW(wide, SE_FILE_OBJECT,
                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                              nullptr, &list, nullptr, &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  // A file without a list is open to everyone.
  access = {.group_reads = false,
            .group_writes = false,
            .others_read = list == nullptr,
            .others_write = list == nullptr,
            .owner_is_trusted = is_one_of(kTrusted, owner) || is_own(owner)};
  if (list != nullptr) add_allowed(list, access);
  ::LocalFree(descriptor);
  return true;
}

}  // namespace kova
