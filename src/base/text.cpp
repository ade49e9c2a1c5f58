#include "base/text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kova {

bool TextOut::copy(std::string_view text) {
  length_ = 0;
  data_[0] = '\0';
  return append(text);
}

void TextOut::copy_cut(std::string_view text) {
  length_ = std::min(text.size(), capacity_ - 1);
  if (length_ > 0) std::memmove(data_, text.data(), length_);
  data_[length_] = '\0';
}

bool TextOut::append(std::string_view text) {
  if (text.size() >= capacity_ - length_) return false;
  if (!text.empty()) std::memcpy(data_ + length_, text.data(), text.size());
  length_ += text.size();
  data_[length_] = '\0';
  return true;
}

bool TextOut::append_number(std::uint64_t number) {
  constexpr std::size_t kDigitsCapacity = 20;
  char digits[kDigitsCapacity];
  char* const end = digits + kDigitsCapacity;
  char* first = end;
  do {
    *--first = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  return append({first, static_cast<std::size_t>(end - first)});
}

bool TextOut::format(const char* directives, ...) {
  const std::size_t room = capacity_ - length_;
  std::va_list arguments;
  va_start(arguments, directives);
  const int written = std::vsnprintf(data_ + length_, room, directives, arguments);
  va_end(arguments);
  if (written < 0 || static_cast<std::size_t>(written) >= room) {
    data_[length_] = '\0';
    return false;
  }
  length_ += static_cast<std::size_t>(written);
  return true;
}

}  // namespace kova
