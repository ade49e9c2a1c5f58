// Lines of standard input, read in blocks.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/large_block.h"

namespace kova {

inline constexpr std::size_t kMessageLimit = 1048576;
/// Bytes of the longest piece: a message of the largest size and its line feed.
inline constexpr std::size_t kPieceLimit = kMessageLimit + 1;
/// The longest piece and a terminator.
inline constexpr std::size_t kLineBufferCapacity = kPieceLimit + 1;

/// One piece of the input. It ends after a line feed, at the piece limit, or at the end of input.
struct Line {
  std::string_view text;
  bool at_end_of_input;  ///< cut by the end, not by a line feed or the piece limit
};

/// Cuts standard input into lines inside a buffer that the caller owns; the unread rest stays
/// there. The bytes of a line are valid until the next call.
class LineReader {
 public:
  using Source = std::size_t (*)(char* data, std::size_t size);

  /// `buffer` has kLineBufferCapacity bytes. `source` reads as read_stdin does. A piece has at
  /// most `piece_limit` bytes, which are not more than kPieceLimit.
  LineReader(char* buffer, Source source, std::size_t piece_limit = kPieceLimit)
      : buffer_(buffer), source_(source), piece_limit_(piece_limit) {}

  /// A reader whose buffer is this block and is filled once, by a process that then ends: a line
  /// that is longer than one read of a pipe is moved to a large page.
  LineReader(LargeBlock& buffer, Source source) : LineReader(buffer.data(), source) {
    block_ = &buffer;
  }

  /// False at the end of input with nothing left.
  [[nodiscard]] bool next(Line& line);
  /// Skips everything up to and including the next line feed, or to the end of input.
  void discard_line();

 private:
  [[nodiscard]] bool fill();

  char* buffer_;
  Source source_;
  std::size_t piece_limit_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  LargeBlock* block_ = nullptr;
};

/// The line up to its first NUL.
[[nodiscard]] std::string_view cut_at_nul(std::string_view line);
/// The line without the line feeds and carriage returns at its end.
[[nodiscard]] std::string_view strip_line_end(std::string_view line);

}  // namespace kova
