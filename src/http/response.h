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

/// Composes the head and sends it, then the body. Before a kTooManyRequests it takes in what the
/// client has sent, so that closing the connection does not destroy the response on its way. A
/// client that has gone changes nothing.
void write_response(Socket& socket, const HttpResponse& response);

}  // namespace kova
