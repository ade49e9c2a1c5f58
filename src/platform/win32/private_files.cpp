#include "platform/private_files.h"

#include <windows.h>

#include <aclapi.h>

#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr DWORD kAccounts = 3;

/// The rule "this account, the administrators and the system, and nobody else".
class PrivateRule {
 public:
  PrivateRule() {
    ready_ = find_accounts() && make_list() &&
             ::InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION) != 0 &&
             ::SetSecurityDescriptorDacl(&descriptor_, TRUE, list_, FALSE) != 0 &&
             ::SetSecurityDescriptorControl(&descriptor_, SE_DACL_PROTECTED,
                                            SE_DACL_PROTECTED) != 0;
    attributes_.nLength = sizeof attributes_;
    attributes_.lpSecurityDescriptor = &descriptor_;
  }
  ~PrivateRule() {
    if (list_ != nullptr) ::LocalFree(list_);
  }
  PrivateRule(const PrivateRule&) = delete;
  PrivateRule& operator=(const PrivateRule&) = delete;

  [[nodiscard]] bool ready() const { return ready_; }
  [[nodiscard]] SECURITY_ATTRIBUTES* attributes() { return &attributes_; }

 private:
  struct Account {
    TOKEN_USER user;
    unsigned char sid[SECURITY_MAX_SID_SIZE];
  };
  struct Sid {
    alignas(SID) unsigned char bytes[SECURITY_MAX_SID_SIZE];
  };

  [[nodiscard]] bool find_accounts() {
    HANDLE token = nullptr;
    DWORD size = 0;
    if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return false;
    const bool told = ::GetTokenInformation(token, TokenUser, &own_, sizeof own_, &size) != 0;
    ::CloseHandle(token);
    DWORD first_size = sizeof administrators_;
    DWORD second_size = sizeof system_;
    return told &&
           ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, &administrators_,
                                &first_size) != 0 &&
           ::CreateWellKnownSid(WinLocalSystemSid, nullptr, &system_, &second_size) != 0;
  }

  [[nodiscard]] bool make_list() {
    const PSID accounts[kAccounts] = {own_.user.User.Sid, &administrators_, &system_};
    EXPLICIT_ACCESSW entries[kAccounts] = {};
    for (DWORD index = 0; index < kAccounts; ++index) {
      entries[index].grfAccessPermissions = FILE_ALL_ACCESS;
      entries[index].grfAccessMode = SET_ACCESS;
      entries[index].grfInheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT;
      entries[index].Trustee.TrusteeForm = TRUSTEE_IS_SID;
      entries[index].Trustee.ptstrName = static_cast<LPWSTR>(accounts[index]);
    }
    return ::SetEntriesInAclW(kAccounts, entries, nullptr, &list_) == ERROR_SUCCESS;
  }

  bool ready_ = false;
  Account own_{};
  Sid administrators_{};
  Sid system_{};
  PACL list_ = nullptr;
  SECURITY_DESCRIPTOR descriptor_{};
  SECURITY_ATTRIBUTES attributes_{};
};

bool write_all(HANDLE file, std::string_view bytes) {
  DWORD written = 0;
  return ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) !=
             0 &&
         written == bytes.size() && ::FlushFileBuffers(file) != 0;
}

}  // namespace

bool make_private_folder(const char* path) {
  wchar_t wide[kWideCapacity];
  PrivateRule rule;
  return rule.ready() && to_wide(path, wide) &&
         ::CreateDirectoryW(wide, rule.attributes()) != 0;
}

// What may be started is not a matter of the file here.
bool write_private_file(const char* path, std::string_view bytes, FileUse) {
  wchar_t wide[kWideCapacity];
  PrivateRule rule;
  if (!rule.ready() || !to_wide(path, wide)) return false;
  const HANDLE file = ::CreateFileW(wide, GENERIC_WRITE, 0, rule.attributes(), CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  const bool written = write_all(file, bytes);
  ::CloseHandle(file);
  if (!written) ::DeleteFileW(wide);
  return written;
}

bool move_without_replacing(const char* from, const char* to) {
  wchar_t wide_from[kWideCapacity];
  wchar_t wide_to[kWideCapacity];
  return to_wide(from, wide_from) && to_wide(to, wide_to) &&
         ::MoveFileExW(wide_from, wide_to, MOVEFILE_WRITE_THROUGH) != 0;
}

bool path_exists(const char* path) {
  wchar_t wide[kWideCapacity];
  return to_wide(path, wide) && ::GetFileAttributesW(wide) != INVALID_FILE_ATTRIBUTES;
}

}  // namespace kova
