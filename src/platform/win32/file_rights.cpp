#include "platform/file_rights.h"

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include "base/text.h"
#include "platform/file.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr DWORD kNameUnits = 64;

struct Sid {
  alignas(SID) unsigned char bytes[SECURITY_MAX_SID_SIZE];
};

bool is_well_known(PSID sid, WELL_KNOWN_SID_TYPE type) {
  return ::IsWellKnownSid(sid, type) != 0;
}

bool is_everybody(PSID sid) {
  return is_well_known(sid, WinWorldSid) || is_well_known(sid, WinAuthenticatedUserSid) ||
         is_well_known(sid, WinBuiltinUsersSid) || is_well_known(sid, WinInteractiveSid) ||
         is_well_known(sid, WinNetworkSid) || is_well_known(sid, WinBuiltinGuestsSid) ||
         is_well_known(sid, WinAnonymousSid);
}

// The account that installs the system's own updates has no well-known type.
bool is_installer(PSID sid) {
  PSID installer = nullptr;
  if (::ConvertStringSidToSidW(L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464",
                               &installer) == 0) {
    return false;
  }
  const bool equal = ::EqualSid(sid, installer) != 0;
  ::LocalFree(installer);
  return equal;
}

bool is_administrator(PSID sid) {
  return is_well_known(sid, WinLocalSystemSid) || is_well_known(sid, WinBuiltinAdministratorsSid) ||
         is_installer(sid);
}

bool is_own_account(PSID sid) {
  struct {
    TOKEN_USER user;
    Sid sid;
  } answer{};
  HANDLE token = nullptr;
  DWORD size = 0;
  if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return false;
  const bool told = ::GetTokenInformation(token, TokenUser, &answer, sizeof answer, &size) != 0;
  ::CloseHandle(token);
  return told && ::EqualSid(sid, answer.user.User.Sid) != 0;
}

void write_account(TextOut out, PSID sid) {
  wchar_t name[kNameUnits];
  wchar_t domain[kNameUnits];
  DWORD name_units = kNameUnits;
  DWORD domain_units = kNameUnits;
  SID_NAME_USE use{};
  out.copy_cut("");
  if (::LookupAccountSidW(nullptr, sid, name, &name_units, domain, &domain_units, &use) != 0 &&
      from_wide(name, out)) {
    return;
  }
  wchar_t* number = nullptr;
  if (::ConvertSidToStringSidW(sid, &number) == 0) return;
  if (!from_wide(number, out)) out.copy_cut("");
  ::LocalFree(number);
}

constexpr DWORD kReading = FILE_READ_DATA | GENERIC_READ | GENERIC_ALL;
// Adding a folder to a folder has the bit of appending to a file, and does no harm.
constexpr DWORD kTakingOver = DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_ALL;
constexpr DWORD kChanging = kTakingOver | FILE_WRITE_DATA | GENERIC_WRITE;
constexpr DWORD kReplacing = kTakingOver | FILE_DELETE_CHILD;

void add_entry(const ACCESS_ALLOWED_ACE& entry, PSID owner, FileRights& rights) {
  const auto sid = const_cast<PSID>(static_cast<const void*>(&entry.SidStart));
  const bool reads = (entry.Mask & kReading) != 0;
  const DWORD changing =
      rights.is_directory ? kChanging | kReplacing : kChanging | FILE_APPEND_DATA;
  const bool writes = (entry.Mask & changing) != 0;
  const bool replaces = rights.is_directory && (entry.Mask & kReplacing) != 0;
  if (is_everybody(sid)) {
    rights.others_read |= reads;
    rights.others_write |= writes;
    rights.others_replace |= replaces;
  } else if (::EqualSid(sid, owner) == 0 && !is_administrator(sid) && !is_own_account(sid) &&
             !is_well_known(sid, WinCreatorOwnerSid) &&
             !is_well_known(sid, WinCreatorOwnerRightsSid)) {
    if (rights.group[0] == '\0' && (reads || writes)) write_account(rights.group, sid);
    rights.group_reads |= reads;
    rights.group_writes |= writes;
    rights.group_replaces |= replaces;
  }
}

void add_entries(PACL list, PSID owner, FileRights& rights) {
  if (list == nullptr) {  // no list at all: everybody may do everything
    rights.others_read = rights.others_write = true;
    rights.others_replace = rights.is_directory;
    return;
  }
  for (DWORD index = 0; index < list->AceCount; ++index) {
    void* entry = nullptr;
    if (::GetAce(list, index, &entry) == 0) continue;
    const auto& header = *static_cast<const ACE_HEADER*>(entry);
    // An entry that only new files inherit says nothing of this one.
    if (header.AceType != ACCESS_ALLOWED_ACE_TYPE || (header.AceFlags & INHERIT_ONLY_ACE) != 0) {
      continue;
    }
    add_entry(*static_cast<const ACCESS_ALLOWED_ACE*>(entry), owner, rights);
  }
}

}  // namespace

bool read_file_rights(const char* path, FileRights& rights) {
  wchar_t wide[kWideCapacity];
  PSID owner = nullptr;
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!to_wide(path, wide) ||
      ::GetNamedSecurityInfoW(wide, SE_FILE_OBJECT,
                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                              nullptr, &list, nullptr, &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  rights = {};
  rights.is_directory = is_directory(path);
  rights.owner_is_trusted = is_own_account(owner) || is_administrator(owner);
  write_account(rights.owner, owner);
  add_entries(list, owner, rights);
  ::LocalFree(descriptor);
  return true;
}

}  // namespace kova
