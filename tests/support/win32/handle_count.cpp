// Prints how many handles the processes of one executable's name hold together. Asks for the
// system's table of handles: Wine does not answer GetProcessHandleCount.
#include <windows.h>

#include <tlhelp32.h>
#include <winternl.h>

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

constexpr ULONG kTableCapacity = 16U << 20;

struct HandleEntry {
  ULONG process_id;
  UCHAR type;
  UCHAR flags;
  USHORT handle;
  void* object;
  ACCESS_MASK access;
};

struct HandleTable {
  ULONG count;
  HandleEntry entries[1];
};

unsigned handles_of(const HandleTable& table, DWORD process_id) {
  unsigned count = 0;
  for (ULONG i = 0; i < table.count; ++i) {
    if (table.entries[i].process_id == process_id) ++count;
  }
  return count;
}

}  // namespace

int main(int count, char** arguments) {
  const auto memory = std::make_unique<char[]>(kTableCapacity);
  if (count != 2 || ::NtQuerySystemInformation(SystemHandleInformation, memory.get(),
                                               kTableCapacity, nullptr) != 0) {
    return 2;
  }
  const auto& table = *reinterpret_cast<const HandleTable*>(memory.get());
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 entry{};
  entry.dwSize = sizeof entry;
  unsigned handles = 0;
  for (BOOL more = ::Process32First(snapshot, &entry); more != 0;
       more = ::Process32Next(snapshot, &entry)) {
    if (std::strcmp(entry.szExeFile, arguments[1]) == 0) {
      handles += handles_of(table, entry.th32ProcessID);
    }
  }
  ::CloseHandle(snapshot);
  std::printf("%u\n", handles);
  return handles > 0 ? 0 : 1;
}
