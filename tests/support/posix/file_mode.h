// The permission bits of a file.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

namespace kova::testing {

/// Permission, set-id and sticky bits; fails the test when there is no such file.
inline mode_t mode_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

}  // namespace kova::testing
