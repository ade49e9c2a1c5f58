#include "admin/audit/content_digests.h"

#include <cstring>

#include "admin/audit/hashing_thread.h"
#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

void require(bool done) {
  if (!done) throw Refusal("the system has no SHA-256 to give");
}

}  // namespace

ContentDigests::ContentDigests(std::uint64_t sealed_lines) : sealed_lines_(sealed_lines) {
  require(whole_.begin() && block_.begin());
}

void ContentDigests::add(std::string_view bytes) {
  require(whole_.add(bytes));
  const char* begin = bytes.data();
  const char* const end = begin + bytes.size();
  // What lies between the ends of blocks is hashed in one piece.
  for (const char* p = begin; p != end;) {
    const auto left = static_cast<std::size_t>(end - p);
    const auto* const feed = static_cast<const char*>(std::memchr(p, '\n', left));
    line_is_open_ = feed == nullptr;
    if (feed == nullptr) break;
    p = feed + 1;
    if ((lines_ + 1) % kSealBlockLines == 0 || lines_ + 1 == sealed_lines_) {
      add_to_block({begin, static_cast<std::size_t>(p - begin)});
      begin = p;
    }
    end_line();
  }
  add_to_block({begin, static_cast<std::size_t>(end - begin)});
}

void ContentDigests::add_to_block(std::string_view bytes) {
  if (bytes.empty() || lines_ >= sealed_lines_) return;
  require(block_.add(bytes));
  block_is_open_ = true;
}

void ContentDigests::end_line() {
  ++lines_;
  if (lines_ % kSealBlockLines == 0 || lines_ == sealed_lines_) end_block();
}

void ContentDigests::end_block() {
  if (!block_is_open_) return;
  blocks_.push_back(finished_digest(block_));
  require(block_.begin());
  block_is_open_ = false;
}

void ContentDigests::finish() {
  if (line_is_open_) end_line();
  end_block();
  whole_text_ = finished_digest(whole_);
}

}  // namespace kova::admin
