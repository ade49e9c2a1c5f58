// Bounded texts: every text the system builds goes into a buffer of a stated capacity, through
// the one copy, the one append and the one format below.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova {

/// What a text in UTF-8 may begin with, and what is no part of it.
inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

/// The bytes of a text from an index on, at most `count` of them; empty beyond its end.
constexpr std::string_view slice(std::string_view text, std::size_t begin,
                                 std::size_t count = std::string_view::npos) {
  if (begin >= text.size()) return {};
  return {text.data() + begin, std::min(count, text.size() - begin)};
}

/// The text, or where it is empty the fallback.
constexpr std::string_view or_else(std::string_view text, std::string_view fallback) {
  return text.empty() ? fallback : text;
}

/// A NUL-terminated text under construction in a buffer that the caller owns. The capacity counts
/// the terminator. Construction writes nothing, so a text that no one writes stays as it was.
class TextOut {
 public:
  template <std::size_t N>
  // NOLINTNEXTLINE(google-explicit-constructor): an array is meant to be passed as it stands.
  TextOut(char (&array)[N]) : TextOut(array, N) {}
  /// `capacity` is at least 1.
  TextOut(char* data, std::size_t capacity) : data_(data), capacity_(capacity) {}

  /// Replaces the text. When it does not fit, the text becomes empty and false is returned.
  [[nodiscard]] bool copy(std::string_view text);
  /// Replaces the text by as much of `text` as fits.
  void copy_cut(std::string_view text);
  /// Adds to the text. When it does not fit, nothing is added and false is returned.
  [[nodiscard]] bool append(std::string_view text);
  [[nodiscard]] bool append(char byte) { return append(std::string_view(&byte, 1)); }
  /// Adds a number in decimal digits.
  [[nodiscard]] bool append_number(std::uint64_t number);
  /// Adds formatted text (printf directives). When it does not fit, nothing is added and
  /// false is returned.
  [[nodiscard]] bool format(const char* directives, ...) __attribute__((format(gnu_printf, 2, 3)));

  /// What this object has written so far.
  [[nodiscard]] std::string_view view() const { return {data_, length_}; }
  [[nodiscard]] std::size_t length() const { return length_; }
  [[nodiscard]] std::size_t capacity() const { return capacity_; }
  /// Terminated once something was written.
  [[nodiscard]] char* data() const { return data_; }

 private:
  char* data_;
  std::size_t capacity_;
  std::size_t length_ = 0;
};

/// Writes the message of a failed check and returns false, so that a check reads
/// `return refuse(message, "...")`.
inline bool refuse(TextOut message, std::string_view text) {
  message.copy_cut(text);
  return false;
}

}  // namespace kova
