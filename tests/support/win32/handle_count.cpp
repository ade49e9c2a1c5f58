// Prints how many handles the processes of one executable's name hold together. Asks for the
// system's list of processes: Wine does not answer GetProcessHandleCount, and its server may crash
// over the table of all handles when a process starts at that moment.
#include <windows.h>

#include <winternl.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>

namespace {

constexpr ULONG kListCapacity = 1U << 20;

bool has_name(const SYSTEM_PROCESS_INFORMATION& process, std::string_view name) {
  const UNICODE_STRING& image = process.ImageName;
  return std::equal(name.begin(), name.end(), image.Buffer,
                    image.Buffer + image.Length / sizeof(wchar_t));
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
    if (has_name(process, arguments[1])) handles += process.HandleCount;
    next = process.NextEntryOffset;
  }
  std::printf("%u\n", handles);
  return handles > 0 ? 0 : 1;
}
