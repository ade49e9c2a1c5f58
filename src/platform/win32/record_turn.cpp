#include "platform/win32/record_turn.h"

#include <windows.h>
// After windows.h, whose types it uses.
#include <sddl.h>

#include <cstddef>
#include <cwchar>
#include <string_view>

#include "base/text.h"
#include "platform/win32/handle.h"
#include "platform/win32/system_library.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr DWORD kMutexAccess = SYNCHRONIZE | MUTEX_MODIFY_STATE;
constexpr std::size_t kMutexNameCapacity = 64;
constexpr std::size_t kSddlCapacity = 256;
/// Room for a TOKEN_USER and the longest account identifier behind it.
constexpr std::size_t kTokenUserCapacity = sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE;

/// What the mutex's protection needs of the system's security library, which is loaded for a
/// record alone.
struct Security {
  decltype(&::OpenProcessToken) open_token;
  decltype(&::GetTokenInformation) token_information;
  decltype(&::ConvertSidToStringSidW) sid_text;
  decltype(&::ConvertStringSecurityDescriptorToSecurityDescriptorW) descriptor;

  [[nodiscard]] bool load() {
    const SystemLibrary library(L"advapi32.dll");
    return library.find("OpenProcessToken", open_token) &&
           library.find("GetTokenInformation", token_information) &&
           library.find("ConvertSidToStringSidW", sid_text) &&
           library.find("ConvertStringSecurityDescriptorToSecurityDescriptorW", descriptor);
  }
};

/// Lets every process of this account use an object, elevated or not, in whatever session it runs.
/// The default would shut out a process that is not elevated when an elevated one came first.
class AccountAccess {
 public:
  AccountAccess() {
    Security security{};
    if (!security.load()) return;
    HANDLE token = nullptr;
    if (security.open_token(::GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return;
    const Handle closing(token);
    alignas(TOKEN_USER) char user[kTokenUserCapacity];
    DWORD size = 0;
    wchar_t* sid = nullptr;
    if (security.token_information(token, TokenUser, user, sizeof user, &size) == 0 ||
        security.sid_text(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &sid) == 0) {
      return;
    }
    wchar_t text[kSddlCapacity];
    const int length = std::swprintf(text, kSddlCapacity, L"D:(A;;GA;;;%ls)", sid);
    ::LocalFree(sid);
    if (length > 0) {
      security.descriptor(text, SDDL_REVISION_1, &attributes_.lpSecurityDescriptor, nullptr);
    }
  }
  ~AccountAccess() { ::LocalFree(attributes_.lpSecurityDescriptor); }
  AccountAccess(const AccountAccess&) = delete;
  AccountAccess& operator=(const AccountAccess&) = delete;

  /// Null stands for the system's default.
  [[nodiscard]] SECURITY_ATTRIBUTES* get() {
    return attributes_.lpSecurityDescriptor != nullptr ? &attributes_ : nullptr;
  }

 private:
  SECURITY_ATTRIBUTES attributes_{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
};

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// Writes the path of the file in its folder's own name, however the folder was named, in upper
/// case; returns its length, 0 when it cannot be had. The file itself is not opened: it may be
/// renamed at any moment, and every writer must come to the same path.
DWORD final_path(const wchar_t* path, wchar_t (&out)[kWideCapacity]) {
  wchar_t full[kWideCapacity];
  wchar_t found[kWideCapacity];
  wchar_t* name = nullptr;
  const DWORD size = ::GetFullPathNameW(path, kWideCapacity, full, &name);
  if (size == 0 || size >= kWideCapacity || name == nullptr || name == full) return 0;
  const std::wstring_view file_name(name);
  wchar_t copy[kWideCapacity];
  copy[file_name.copy(copy, kWideCapacity - 1)] = L'\0';
  *name = L'\0';
  const Handle folder =
      open_handle(full, FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
  if (folder.get() == nullptr) return 0;
  DWORD units = ::GetFinalPathNameByHandleW(folder.get(), found, kWideCapacity, 0);
  const std::size_t length = std::wcslen(copy);
  if (units == 0 || units + length + 1 >= kWideCapacity) return 0;
  if (found[units - 1] != L'\\') found[units++] = L'\\';
  std::wmemcpy(found + units, copy, length);
  return static_cast<DWORD>(::LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, found,
                                            static_cast<int>(units + length), out, kWideCapacity,
                                            nullptr, nullptr, 0));
}

/// FNV-1a (Fowler, Noll, Vo), 64 bits: a path may be longer than a mutex's name, and two files of
/// one digest only wait for each other without need.
std::uint64_t digest(const wchar_t* text, DWORD units) {
  constexpr std::uint64_t kOffsetBasis = 0xcbf29ce484222325;
  constexpr std::uint64_t kPrime = 0x100000001b3;
  std::uint64_t value = kOffsetBasis;
  for (DWORD i = 0; i < units; ++i) {
    value = (value ^ (text[i] & 0xFF)) * kPrime;
    value = (value ^ (text[i] >> 8)) * kPrime;
  }
  return value;
}

HANDLE open_mutex(const char* scope, std::uint64_t file_digest) {
  char text[kMutexNameCapacity];
  wchar_t name[kWideCapacity];
  if (!TextOut(text).format("%s\\kova-mcp-audit-%016llx", scope,
                            static_cast<unsigned long long>(file_digest)) ||
      !to_wide(text, name)) {
    return nullptr;
  }
  if (const HANDLE existing = ::OpenMutexW(kMutexAccess, FALSE, name)) return existing;
  AccountAccess access;
  return ::CreateMutexExW(access.get(), name, 0, kMutexAccess);
}

}  // namespace

RecordTurn::RecordTurn(const wchar_t* path, std::uint32_t wait_ms) {
  wchar_t resolved[kWideCapacity];
  const DWORD units = path != nullptr ? final_path(path, resolved) : 0;
  if (units == 0) return;
  const std::uint64_t file_digest = digest(resolved, units);
  *mutex_.out() = open_mutex("Global", file_digest);
  if (mutex_.get() == nullptr) *mutex_.out() = open_mutex("Local", file_digest);
  if (mutex_.get() == nullptr) return;
  const DWORD outcome = ::WaitForSingleObject(mutex_.get(), wait_ms);
  abandoned_ = outcome == WAIT_ABANDONED;
  held_ = outcome == WAIT_OBJECT_0 || abandoned_;
}

RecordTurn::~RecordTurn() {
  if (held_) ::ReleaseMutex(mutex_.get());
}

}  // namespace kova
