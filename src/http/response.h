// The one response of a connection.
#pragma once

#include <string_view>

#include "platform/socket.h"

namespace kova {

inline constexpr int kTooManyRequests = 429;

struct HttpResponse {
  int status = 0;
  const char* reason = "";
  const char* header = "";     ///< beyond those of every response; ends in CRLF, or is empty
  std::string_view body = {};  ///< JSON, or empty
};

/// Composes the head and sends it, then the body. Before a kTooManyRequests it reads and drops what
/// the client has sent: closing a socket with unread bytes resets the connection, and the response
/// could be lost. A client that has closed the connection is no error.
void write_response(Socket& socket, const HttpResponse& response);

}  // namespace kova
