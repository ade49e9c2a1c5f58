#include "admin/audit/followed_file.h"

#include <utility>

#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

constexpr std::size_t kTailBlockSize = std::size_t{64} * 1024;

}  // namespace

FollowedFile::FollowedFile(std::string path) : path_(std::move(path)), block_(kTailBlockSize) {
  Part part{};
  if (path_.find('\0') != std::string::npos || !part.input.open(path_.c_str()) ||
      !part.input.identity(part.identity)) {
    throw Refusal(path_ + ": the file cannot be opened");
  }
  parts_.push_back(std::move(part));
}

std::string_view FollowedFile::read_block(Part& part) {
  std::size_t got = 0;
  if (!part.input.read(block_.data(), block_.size(), got)) {
    throw Refusal(path_ + ": the file cannot be read");
  }
  part.position += got;
  return {block_.data(), got};
}

// For a moment of the rotation no file has the name. A name keeps its volume while it is followed,
// and a loaded system may fail to tell it: the number of the file alone says which one it is.
void FollowedFile::look_for_another(std::uint64_t now_ms) {
  Part part{};
  if (!part.input.open(path_.c_str()) || !part.input.identity(part.identity)) return;
  if (part.identity.file == parts_.back().identity.file) return;
  parts_.back().until = now_ms + kLingerMs;
  parts_.push_back(std::move(part));
}

// The file was emptied in place.
void FollowedFile::start_again(Part& part) {
  if (!part.input.rewind()) return;
  part.position = 0;
  part.splitter = LineSplitter();
}

}  // namespace kova::admin
