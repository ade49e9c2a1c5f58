// An engine of the test's own process, and statements through the client library.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "engine/server.h"
#include "kovadll/kovadll.h"

namespace kova::sample {

/// A folder that goes away at the end of the scope.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sample-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// Makes a database file by running a script in it.
inline void make_database(const std::string& path, const char* script) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(database, script, nullptr, nullptr, &error), SQLITE_OK) << error;
  sqlite3_close(database);
}

/// The message of what the work throws; empty when it succeeds.
template <typename Work>
std::string message_of(const Work& work) {
  try {
    work();
    return {};
  } catch (const Failure& failure) {
    return failure.what();
  }
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace kova::sample
