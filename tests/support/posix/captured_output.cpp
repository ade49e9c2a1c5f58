#include "support/captured_output.h"

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

int make_temporary_file() {
  char path[] = "/tmp/captured-output-XXXXXX";
  const int file = mkstemp(path);
  if (file < 0) std::abort();
  unlink(path);
  return file;
}

}  // namespace

CapturedOutput::CapturedOutput(Stream stream) : stream_(stream) {
  flush(stream);
  const int descriptor = descriptor_of(stream);
  original_ = dup(descriptor);
  file_ = make_temporary_file();
  if (original_ < 0 || dup2(static_cast<int>(file_), descriptor) < 0) std::abort();
}

CapturedOutput::~CapturedOutput() {
  flush(stream_);
  dup2(static_cast<int>(original_), descriptor_of(stream_));
  close(static_cast<int>(original_));
  close(static_cast<int>(file_));
}

std::string CapturedOutput::take() {
  flush(stream_);
  std::string bytes;
  char block[65536];
  for (;;) {
    const ssize_t got =
        pread(static_cast<int>(file_), block, sizeof block, static_cast<off_t>(taken_));
    if (got <= 0) return bytes;
    bytes.append(block, static_cast<std::size_t>(got));
    taken_ += static_cast<std::uint64_t>(got);
  }
}

}  // namespace kova::testing
