// Texts that end, or begin, at memory that must not be touched: a scanner that reads one byte too
// far ends the test program.
#pragma once

#include <cstddef>
#include <string_view>

namespace kova::testing {

enum class GuardSide {
  kAfter,   ///< the byte after the text is unreadable
  kBefore,  ///< the byte before the text is unreadable
};

/// A copy of a text (an empty one, too) that touches an unreadable page. No terminator follows.
class GuardedText {
 public:
  explicit GuardedText(std::string_view text, GuardSide side = GuardSide::kAfter);
  ~GuardedText();
  GuardedText(const GuardedText&) = delete;
  GuardedText& operator=(const GuardedText&) = delete;

  [[nodiscard]] std::string_view view() const { return {data_, size_}; }
  /// The copy may be changed in place.
  [[nodiscard]] char* data() const { return data_; }

 private:
  std::size_t size_;
  std::size_t mapped_;
  char* block_;
  char* data_;
};

/// Room of exactly so many bytes before an unreadable page: what is written beyond it ends the
/// test program.
class GuardedBuffer {
 public:
  explicit GuardedBuffer(std::size_t size);
  ~GuardedBuffer();
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  [[nodiscard]] char* data() const { return data_; }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  std::size_t size_;
  std::size_t mapped_;
  char* block_;
  char* data_;
};

}  // namespace kova::testing
