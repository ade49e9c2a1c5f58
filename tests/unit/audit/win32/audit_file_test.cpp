// The audit file as Windows shares it.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "unit/audit/audit_file.h"

namespace kova::testing {
namespace {

HANDLE open_shared(const std::string& path, DWORD access) {
  return CreateFileW(std::wstring(path.begin(), path.end()).c_str(), access,
                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
}

TEST_F(AuditFile, DropsARecordWhileAnotherWriterHoldsIt) {
  write();
  const HANDLE writer = open_shared(path, FILE_APPEND_DATA);
  ASSERT_NE(writer, INVALID_HANDLE_VALUE);
  write();
  CloseHandle(writer);
  EXPECT_EQ(lines_in(content()), 1);
  write();
  EXPECT_EQ(lines_in(content()), 2);
}

TEST_F(AuditFile, AReaderCostsNoRecord) {
  write();
  const HANDLE reader = open_shared(path, GENERIC_READ);
  ASSERT_NE(reader, INVALID_HANDLE_VALUE);
  write();
  CloseHandle(reader);
  EXPECT_EQ(lines_in(content()), 2);
}

}  // namespace
}  // namespace kova::testing
