// The growing text that a result is composed in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova {

inline constexpr std::uint32_t kOutBufInitialCapacity = 4096;
/// How far the text grows, its terminator included.
inline constexpr std::uint32_t kOutBufCapacityLimit = 1048576;

/// A heap text that starts at 4,096 bytes and doubles up to 1,048,576, the terminator included.
/// Terminated after each append. An append past that limit or without memory fails and leaves the
/// text as it was.
class OutBuf {
 public:
  OutBuf() = default;
  ~OutBuf();
  OutBuf(const OutBuf&) = delete;
  OutBuf& operator=(const OutBuf&) = delete;

  [[nodiscard]] bool append(std::string_view bytes);
  /// Appends a JSON string literal of the first 16,384 bytes; the rest is silently cut. Backspace
  /// and form feed are written as \u0008 and \u000c here.
  [[nodiscard]] bool append_escaped(std::string_view text);
  /// Appends formatted text of at most 127 characters; a longer one fails.
  [[nodiscard]] bool append_formatted(const char* directives, ...)
      __attribute__((format(gnu_printf, 2, 3)));

  [[nodiscard]] std::uint32_t length() const { return length_; }
  [[nodiscard]] std::uint32_t capacity() const { return capacity_; }
  /// Null before the first append.
  [[nodiscard]] const char* text() const { return text_; }
  /// Hands the text over, to be freed with `free`, and leaves the buffer empty.
  [[nodiscard]] char* release();

 private:
  [[nodiscard]] bool append_step(const char*& p, const char* end);

  char* text_ = nullptr;
  std::uint32_t length_ = 0;
  std::uint32_t capacity_ = 0;
};

}  // namespace kova
