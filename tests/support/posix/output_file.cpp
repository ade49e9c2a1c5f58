#include "support/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kova::testing {

OutputFile::OutputFile(const std::string& path) {
  std::fflush(stdout);
  original_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  file_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (original_ < 0 || file_ < 0 || dup2(static_cast<int>(file_), STDOUT_FILENO) < 0) std::abort();
}

OutputFile::~OutputFile() {
  std::fflush(stdout);
  dup2(static_cast<int>(original_), STDOUT_FILENO);
  close(static_cast<int>(original_));
  close(static_cast<int>(file_));
}

}  // namespace kova::testing
