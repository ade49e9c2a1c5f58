// Prints how many handles the processes of one executable's name hold together. Tries each place of
// their tables: Wine has no GetProcessHandleCount, its list of processes has the tables' room
// instead, and its server may crash over the list of all handles while a process starts.
#include <windows.h>

#include <winternl.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

namespace {

constexpr ULONG kListCapacity = 1U << 20;
constexpr std::uintptr_t kHandleStep = 4;

bool has_name(const SYSTEM_PROCESS_INFORMATION& process, std::string_view name) {
  const UNICODE_STRING& image = process.ImageName;
  return std::equal(name.begin(), name.end(), image.Buffer,
                    image.Buffer + image.Length / sizeof(wchar_t));
}

bool is_held(HANDLE process, std::uintptr_t value) {
  HANDLE copy = nullptr;
  if (::DuplicateHandle(process, reinterpret_cast<HANDLE>(value), ::GetCurrentProcess(), &copy, 0,
                        FALSE, DUPLICATE_SAME_ACCESS) == 0) {
    return false;
  }
  ::CloseHandle(copy);
  return true;
}

unsigned handles_of(const SYSTEM_PROCESS_INFORMATION& listed) {
  const auto id = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(listed.UniqueProcessId));
  const HANDLE process = ::OpenProcess(PROCESS_DUP_HANDLE, FALSE, id);
  if (process == nullptr) return 0;
  unsigned count = 0;
  for (std::uintptr_t place = 1; place <= listed.HandleCount; ++place) {
    if (is_held(process, place * kHandleStep)) ++count;
  }
  ::CloseHandle(process);
  return count;
}

}  // namespace

int main(int count, char** arguments) {
  const auto list = std::make_unique<char[]>(kListCapacity);
  if (count != 2 || ::NtQuerySystemInformation(SystemProcessInformation, list.get(), kListCapacity,
                                               nullptr) != 0) {
    return 2;
  }
  unsigned handles = 0;
  const char* entry = list.get();
  for (ULONG next = 1; next != 0; entry += next) {
    const auto& process = *reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(entry);
    if (has_name(process, arguments[1])) handles += handles_of(process);
    next = process.NextEntryOffset;
  }
  std::printf("%u\n", handles);
  return handles > 0 ? 0 : 1;
}
