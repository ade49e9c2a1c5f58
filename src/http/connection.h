// One connection of the HTTP listener: one request, its exchange with a session, one response.
#pragma once

#include <cstddef>

#include "http/rate_window.h"
#include "http/session_table.h"
#include "platform/socket.h"

namespace kova {

/// The port text in the default Host names, which is cut to fit, and a terminator.
inline constexpr std::size_t kPortTextCapacity = 8;

/// What outlives a connection.
struct HttpState {
  RateWindow& rate;
  SessionTable& sessions;
};

/// Reads one request from the socket and writes one response; the caller closes the socket.
void handle_connection(Socket& socket, const char* port_text, const HttpState& state);

}  // namespace kova
