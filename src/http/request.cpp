#include "http/request.h"

#include <algorithm>

#include "base/ascii.h"
#include "base/decimal.h"
#include "base/text.h"

namespace kova {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kBlankLine = "\r\n\r\n";
constexpr std::size_t kContentLengthCapacity = 32;
constexpr std::size_t kListItemLimit = 511;

std::string_view without_trailing_space(std::string_view text) {
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view without_leading_space(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  return text;
}

/// The length of a body; none for a text that is no whole number from 0 to the limit. -0 counts as
/// 0.
std::optional<std::size_t> content_length(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const auto length = whole_decimal(text);
  if (!length || *length > (negative ? 0 : kBodyLimit)) return std::nullopt;
  return static_cast<std::size_t>(*length);
}

bool has_name(std::string_view line, std::string_view name) {
  return line.size() > name.size() && line[name.size()] == ':' &&
         equal_ignoring_case(slice(line, 0, name.size()), name);
}

}  // namespace

std::optional<std::string_view> find_header(std::string_view received, std::string_view name) {
  std::size_t end = received.find(kLineEnd);
  while (end != std::string_view::npos) {
    received.remove_prefix(end + kLineEnd.size());
    end = received.find(kLineEnd);
    const std::string_view line = slice(received, 0, end);
    if (end != std::string_view::npos && has_name(line, name)) {
      return without_leading_space(without_trailing_space(slice(line, name.size() + 1)));
    }
  }
  return std::nullopt;
}

bool is_in_list(std::string_view value, std::string_view list) {
  while (!list.empty()) {
    if (list.front() == ',' || is_space(list.front())) {
      list.remove_prefix(1);
      continue;
    }
    const std::size_t length = std::min(list.find(','), list.size());
    const std::string_view item = slice(list, 0, std::min(length, kListItemLimit));
    if (equal_ignoring_case(without_trailing_space(item), value)) return true;
    list.remove_prefix(length);
  }
  return false;
}

std::string_view HttpRequest::body_as_line() {
  buffer_[body_begin_ + body_length_] = '\n';
  return {buffer_ + body_begin_, body_length_ + 1};
}

std::optional<std::string_view> HttpRequest::header(std::string_view name,
                                                    std::size_t capacity) const {
  const auto value = find_header(received(), name);
  return value && value->size() < capacity ? value : std::nullopt;
}

bool HttpRequest::receive_more(Socket& socket) {
  // The buffer is full: receiving 0 bytes would still wait for the client.
  if (received_ == kRequestLimit) return false;
  const std::size_t got = socket.receive(buffer_ + received_, kRequestLimit - received_);
  received_ += got;
  return got > 0;
}

bool HttpRequest::receive_header_block(Socket& socket) {
  std::size_t end = std::string_view::npos;
  while (end == std::string_view::npos) {
    // The blank line may have begun in what was searched before.
    const std::size_t searched = received_ - std::min(received_, kBlankLine.size() - 1);
    if (!receive_more(socket)) return false;
    end = received().find(kBlankLine, searched);
  }
  body_begin_ = end + kBlankLine.size();
  return body_begin_ <= kHeaderBlockLimit;
}

bool HttpRequest::receive(Socket& socket) {
  if (!receive_header_block(socket)) return false;
  // Only the bytes received so far are searched: the first Content-Length wins, and without one
  // the request is complete.
  const auto text = header("Content-Length", kContentLengthCapacity);
  const auto length = text ? content_length(*text) : 0;
  if (!length) return false;
  body_length_ = *length;
  while (received_ < body_begin_ + body_length_) {
    if (!receive_more(socket)) return false;
  }
  return true;
}

}  // namespace kova
