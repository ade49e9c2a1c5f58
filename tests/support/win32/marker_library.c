/* A library that tells that it was loaded: it makes the file that a variable names. */
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void* reserved) {
  wchar_t path[1024];
  (void)library;
  (void)reserved;
  if (reason == DLL_PROCESS_ATTACH &&
      GetEnvironmentVariableW(L"KOVA_TEST_LOADED", path, ARRAYSIZE(path)) > 0) {
    CloseHandle(CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL));
  }
  return TRUE;
}
