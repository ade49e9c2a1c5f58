// The gate of the HTTP listener: the questions that every request must pass, in their order, each
// with the response that a failure gets.
#pragma once

#include "http/rate_window.h"
#include "http/request.h"
#include "http/response.h"
#include "platform/socket.h"

namespace kova {

/// What the questions look at.
struct GateSubject {
  Socket& socket;
  HttpRequest& request;
  const char* port_text;  ///< the listener's port, as in the default Host names
  RateWindow& rate;
};

/// Counts the request, reads it from the socket and asks the questions. False sets the refusal.
[[nodiscard]] bool pass_gate(const GateSubject& subject, HttpResponse& refusal);

}  // namespace kova
