// One HTTP request, read within fixed bounds.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "platform/socket.h"

namespace kova {

/// Bytes of a connection that are received: headers and body.
inline constexpr std::size_t kRequestLimit = 278528;
/// The request buffer; a line feed always fits behind what was received.
inline constexpr std::size_t kRequestCapacity = kRequestLimit + 2;
/// From the request line through the blank line.
inline constexpr std::size_t kHeaderBlockLimit = 16384;
inline constexpr std::size_t kBodyLimit = 262144;

/// A request in a buffer of kRequestCapacity bytes that the caller owns, or in none (null).
class HttpRequest {
 public:
  explicit HttpRequest(char* buffer) : buffer_(buffer) {}

  /// Reads from the socket until the request is complete. False when the client stops sending
  /// before that, and when a limit above is exceeded. Content-Length frames the body; without it,
  /// or with a value of 32 characters and more, there is no body.
  [[nodiscard]] bool receive(Socket& socket);

  /// Whether there is a buffer to receive into.
  [[nodiscard]] bool has_buffer() const { return buffer_ != nullptr; }
  [[nodiscard]] bool is_post() const { return received().starts_with("POST /mcp HTTP/1.1\r\n"); }
  [[nodiscard]] bool is_delete() const {
    return received().starts_with("DELETE /mcp HTTP/1.1\r\n");
  }

  [[nodiscard]] std::string_view received() const { return {buffer_, received_}; }
  [[nodiscard]] std::string_view body() const { return {buffer_ + body_begin_, body_length_}; }
  /// The body and a line feed, which is written over what may follow it.
  [[nodiscard]] std::string_view body_as_line();

  /// The value of the first header of that name; none when there is none, or when its value has
  /// `capacity` characters or more.
  [[nodiscard]] std::optional<std::string_view> header(std::string_view name,
                                                       std::size_t capacity) const;

 private:
  [[nodiscard]] bool receive_more(Socket& socket);
  [[nodiscard]] bool receive_header_block(Socket& socket);

  char* buffer_;
  std::size_t received_ = 0;
  std::size_t body_begin_ = 0;
  std::size_t body_length_ = 0;
};

/// The value of the first header line of that name without the white space around it. Every line
/// behind the first one that ends in CRLF counts, also behind the blank line.
[[nodiscard]] std::optional<std::string_view> find_header(std::string_view received,
                                                          std::string_view name);

/// Whether a value equals an item of a comma-separated list, ignoring case. An item counts with
/// its first 511 characters.
[[nodiscard]] bool is_in_list(std::string_view value, std::string_view list);

}  // namespace kova
