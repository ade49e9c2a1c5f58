#include "platform/record_file.h"

#include <windows.h>
// After windows.h, whose types it uses.
#include <sddl.h>

#include <cstddef>
#include <cwchar>
#include <string_view>

#include "base/text.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr DWORD kMutexAccess = SYNCHRONIZE | MUTEX_MODIFY_STATE;
constexpr std::size_t kMutexNameCapacity = 64;
constexpr std::size_t kSddlCapacity = 256;
/// Room for a TOKEN_USER and the longest account identifier behind it.
constexpr std::size_t kTokenUserCapacity = sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE;

template <typename Function>
bool find(HMODULE library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(library, name)));
  return function != nullptr;
}

/// What the mutex's protection needs of the system's security library, which is loaded for a
/// record alone.
struct Security {
  decltype(&::OpenProcessToken) open_token;
  decltype(&::GetTokenInformation) token_information;
  decltype(&::ConvertSidToStringSidW) sid_text;
  decltype(&::ConvertStringSecurityDescriptorToSecurityDescriptorW) descriptor;

  [[nodiscard]] bool load() {
    const HMODULE library =
        ::LoadLibraryExW(L"advapi32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    return library != nullptr && find(library, "OpenProcessToken", open_token) &&
           find(library, "GetTokenInformation", token_information) &&
           find(library, "ConvertSidToStringSidW", sid_text) &&
           find(library, "ConvertStringSecurityDescriptorToSecurityDescriptorW", descriptor);
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

// Devices and pipes: opening one only to look at it could take it from its server.
bool is_device(std::wstring_view path) {
  return path.starts_with(LR"(\\.\)");
}

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

/// Lets the processes of the account write a file in turn: a named mutex of that file, visible on
/// the whole machine where that is allowed, held for the scope. A mutex that its holder abandoned
/// by ending is taken like a free one. Without a mutex, or when it is not free in time, the record
/// is written without a turn, and is lost when another program keeps the file from being opened.
class Turn {
 public:
  Turn(const wchar_t* path, std::uint32_t wait_ms) {
    wchar_t resolved[kWideCapacity];
    const DWORD units = is_device(path) ? 0 : final_path(path, resolved);
    if (units == 0) return;
    const std::uint64_t file_digest = digest(resolved, units);
    *mutex_.out() = open_mutex("Global", file_digest);
    if (mutex_.get() == nullptr) *mutex_.out() = open_mutex("Local", file_digest);
    if (mutex_.get() == nullptr) return;
    const DWORD outcome = ::WaitForSingleObject(mutex_.get(), wait_ms);
    held_ = outcome == WAIT_OBJECT_0 || outcome == WAIT_ABANDONED;
  }
  ~Turn() {
    if (held_) ::ReleaseMutex(mutex_.get());
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  Handle mutex_;
  bool held_ = false;
};

bool is_same(HANDLE one, HANDLE other) {
  BY_HANDLE_FILE_INFORMATION a{};
  BY_HANDLE_FILE_INFORMATION b{};
  return ::GetFileInformationByHandle(one, &a) != 0 &&
         ::GetFileInformationByHandle(other, &b) != 0 &&
         a.dwVolumeSerialNumber == b.dwVolumeSerialNumber && a.nFileIndexHigh == b.nFileIndexHigh &&
         a.nFileIndexLow == b.nFileIndexLow;
}

// Consoles have no identity, so every console counts as standard output.
bool is_standard_output_handle(HANDLE file) {
  const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  if (output == nullptr || output == INVALID_HANDLE_VALUE) return false;
  const DWORD type = ::GetFileType(output);
  if (type != ::GetFileType(file)) return false;
  return type == FILE_TYPE_CHAR || (type == FILE_TYPE_DISK && is_same(file, output));
}

}  // namespace

void append_record(const char* path, std::string_view record, std::uint32_t wait_ms) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide)) return;
  const Turn turn(wide, wait_ms);
  const Handle file = open_handle(wide, FILE_APPEND_DATA, FILE_SHARE_READ, OPEN_ALWAYS);
  if (file.get() == nullptr || is_standard_output_handle(file.get())) return;
  DWORD written = 0;
  if (::WriteFile(file.get(), record.data(), static_cast<DWORD>(record.size()), &written,
                  nullptr) != 0) {
    ::FlushFileBuffers(file.get());
  }
}

bool is_standard_output(const char* path) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide) || is_device(wide)) return false;
  const Handle file = open_handle(wide, FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING);
  return file.get() != nullptr && is_standard_output_handle(file.get());
}

}  // namespace kova
