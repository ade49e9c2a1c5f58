#include "support/captured_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kova::testing {
namespace {

int descriptor_of(Stream stream) {
  return stream == Stream::kOutput ? STDOUT_FILENO : STDERR_FILENO;
}

void flush(Stream stream) {
  std::fflush(stream == Stream::kOutput ? stdout : stderr);
}

}  // namespace

CapturedOutput::CapturedOutput(Stream stream) : stream_(stream) {
  flush(stream);
  const int descriptor = descriptor_of(stream);
  char path[] = "/tmp/captured-output-XXXXXX";
  original_ = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  file_ = mkostemp(path, O_CLOEXEC);
  // Reading through a description of its own leaves the position of the next write alone.
  reader_ = open(path, O_RDONLY | O_CLOEXEC);
  unlink(path);
  if (original_ < 0 || file_ < 0 || reader_ < 0 || dup2(static_cast<int>(file_), descriptor) < 0) {
    std::abort();
  }
}

CapturedOutput::~CapturedOutput() {
  flush(stream_);
  dup2(static_cast<int>(original_), descriptor_of(stream_));
  close(static_cast<int>(original_));
  close(static_cast<int>(reader_));
  close(static_cast<int>(file_));
}

std::string CapturedOutput::take() {
  flush(stream_);
  std::string bytes;
  char block[65536];
  for (;;) {
    const ssize_t got = read(static_cast<int>(reader_), block, sizeof block);
    if (got <= 0) return bytes;
    bytes.append(block, static_cast<std::size_t>(got));
  }
}

}  // namespace kova::testing
