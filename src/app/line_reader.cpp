#include "app/line_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/text.h"

namespace kova {

namespace {

/// The most that one read of an ordinary pipe gives.
constexpr std::size_t kReadOfPipe = 65536;

}  // namespace

bool LineReader::next(Line& line) {
  std::size_t searched = 0;
  for (;;) {
    const char* const start = buffer_ + begin_;
    const std::size_t available = std::min(end_ - begin_, piece_limit_);
    const void* const feed =
        available > searched ? std::memchr(start + searched, '\n', available - searched) : nullptr;
    std::size_t length = available;
    bool at_end = false;
    if (feed != nullptr) {
      length = static_cast<std::size_t>(static_cast<const char*>(feed) - start) + 1;
    } else if (available < piece_limit_) {
      searched = available;
      if (fill()) continue;
      at_end = true;
    }
    line = {.text = {buffer_ + begin_, length}, .at_end_of_input = at_end};
    begin_ += length;
    return length > 0;
  }
}

void LineReader::discard_line() {
  for (;;) {
    if (begin_ == end_ && !fill()) return;
    const char* const start = buffer_ + begin_;
    if (const void* const feed = std::memchr(start, '\n', end_ - begin_)) {
      begin_ += static_cast<std::size_t>(static_cast<const char*>(feed) - start) + 1;
      return;
    }
    begin_ = end_;
  }
}

// Moves the unread rest to the front of the buffer first, so that a whole piece fits.
bool LineReader::fill() {
  if (begin_ > 0) {
    std::memmove(buffer_, buffer_ + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (block_ != nullptr && end_ >= kReadOfPipe) {
    block_->move_to_large_page(end_);
    buffer_ = std::exchange(block_, nullptr)->data();
  }
  // Nothing more before it is known whether the line is long.
  const std::size_t room = block_ != nullptr ? kReadOfPipe : kLineBufferCapacity - end_;
  const std::size_t got = source_(buffer_ + end_, room);
  end_ += got;
  return got > 0;
}

std::string_view cut_at_nul(std::string_view line) {
  return slice(line, 0, line.find('\0'));
}

std::string_view strip_line_end(std::string_view line) {
  const std::size_t last = line.find_last_not_of("\r\n");
  return slice(line, 0, last == line.npos ? 0 : last + 1);
}

}  // namespace kova
