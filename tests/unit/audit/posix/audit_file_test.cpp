// The audit file as POSIX systems share and protect it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "unit/audit/audit_file.h"

namespace kova::testing {
namespace {

TEST_F(AuditFile, IsReadableByItsOwnerAlone) {
  write();
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(AuditFile, KeepsTheModeOfAFileThatIsThere) {
  write_file(path, "");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  write();
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
}

TEST_F(AuditFile, AReaderCostsNoRecord) {
  write();
  const int reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  write();
  EXPECT_EQ(lines_in(content()), 2);
  close(reader);
}

// Opening a pipe that nobody reads must not wait.
TEST_F(AuditFile, ANamedPipeIsNoAuditFile) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  write();
}

}  // namespace
}  // namespace kova::testing
