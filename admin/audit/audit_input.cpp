#include "admin/audit/audit_input.h"

#include <vector>

#include "admin/audit/gzip.h"
#include "admin/audit/hashing_thread.h"
#include "admin/common/refusal.h"
#include "platform/console.h"
#include "platform/shared_input.h"

namespace kova::admin {

namespace {

constexpr std::size_t kBlockSize = 512 * std::size_t{1024};
constexpr std::size_t kBlocks = 6;
static_assert(kBlocks <= HashingThread::kQueueCapacity);

/// A file or standard input.
class Source {
 public:
  explicit Source(const std::string& name) : name_(name), is_stdin_(name == kStandardInput) {
    if (is_stdin_) return;
    if (name.find('\0') != std::string::npos || !file_.open(name.c_str())) {
      throw Refusal(name + ": the file cannot be opened");
    }
  }

  /// Fills the block unless the end comes first.
  [[nodiscard]] std::size_t read(char* block) {
    std::size_t size = 0;
    while (size < kBlockSize) {
      std::size_t got = 0;
      if (is_stdin_) {
        got = read_stdin(block + size, kBlockSize - size);
      } else if (!file_.read(block + size, kBlockSize - size, got)) {
        throw Refusal(name_ + ": the file cannot be read");
      }
      if (got == 0) break;
      size += got;
    }
    return size;
  }

 private:
  const std::string& name_;
  bool is_stdin_;
  SharedInput file_;
};

}  // namespace

ReadFile read_audit_file(const std::string& name, const TakeBytes& take, Progress& progress) {
  Source source(name);
  // Before the thread that reads them, so that they outlive it.
  std::vector<char> blocks(kBlocks * kBlockSize);
  HashingThread hash;
  Gunzip gunzip;
  bool is_compressed = false;
  for (std::size_t number = 0;; ++number) {
    hash.wait_until(kBlocks - 1);
    char* const block = blocks.data() + (number % kBlocks) * kBlockSize;
    const std::string_view bytes(block, source.read(block));
    if (number == 0) is_compressed = name.ends_with(".gz") || Gunzip::is_start(bytes);
    if (bytes.empty()) break;
    hash.add(bytes);
    progress.add(bytes.size());
    if (is_compressed) {
      gunzip.add(bytes, take);
    } else {
      take(bytes);
    }
  }
  return {.sha256 = hash.finish(), .is_whole = !is_compressed || gunzip.is_whole()};
}

ReadFile read_whole_audit_file(const std::string& name, const TakeBytes& take, Progress& progress) {
  ReadFile read = read_audit_file(name, take, progress);
  if (!read.is_whole) throw Refusal(name + ": the compressed file is broken or cut short");
  return read;
}

}  // namespace kova::admin
