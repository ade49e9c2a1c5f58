#include "http/connection.h"

#include <string_view>

#include "base/heap_array.h"
#include "base/secret.h"
#include "base/text.h"
#include "http/gate.h"
#include "http/request.h"
#include "http/response.h"

namespace kova {

namespace {

constexpr std::size_t kSessionHeaderCapacity = 96;
constexpr std::size_t kResponseHeaderCapacity = 96;

constexpr HttpResponse kUnknownSession{
    .status = 404, .reason = "Not Found", .body = R"({"error":"session not found"})"};
constexpr HttpResponse kSessionReused{.status = 400,
                                      .reason = "Bad Request",
                                      .body = R"({"error":"initialize must not reuse a session"})"};
constexpr std::string_view kSessionRequired = R"({"error":"valid MCP session required"})";
constexpr HttpResponse kSessionMissing{
    .status = 400, .reason = "Bad Request", .body = kSessionRequired};
constexpr HttpResponse kSessionGone{.status = 404, .reason = "Not Found", .body = kSessionRequired};
constexpr HttpResponse kInputFailed{
    .status = 502, .reason = "Bad Gateway", .body = R"({"error":"MCP session failed"})"};
constexpr HttpResponse kReplyFailed{
    .status = 502, .reason = "Bad Gateway", .body = R"({"error":"MCP response failed"})"};
constexpr HttpResponse kSessionClosed{.status = 204, .reason = "No Content"};

bool is_initialize(std::string_view body) {
  return body.find(R"("method":"initialize")") != std::string_view::npos ||
         body.find(R"("method" : "initialize")") != std::string_view::npos;
}

bool expects_reply(std::string_view body) {
  return body.find(R"("id")") != std::string_view::npos;
}

/// One request and its buffer, which the session's reply overwrites.
class Connection {
 public:
  Connection(Socket& socket, const char* port_text, const HttpState& state)
      : socket_(socket),
        port_text_(port_text),
        state_(state),
        buffer_(kRequestCapacity),
        request_(buffer_.data()) {}
  ~Connection() {
    // It holds the client's token.
    if (buffer_) wipe(buffer_.data(), request_.received().size());
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// The response is valid as long as this object.
  [[nodiscard]] HttpResponse respond() {
    HttpResponse refusal;
    const GateSubject subject{
        .socket = socket_, .request = request_, .port_text = port_text_, .rate = state_.rate};
    if (!pass_gate(subject, refusal)) return refusal;
    const std::string_view session_id =
        request_.header("Mcp-Session-Id", kSessionHeaderCapacity).value_or(std::string_view());
    return request_.is_delete() ? close_session(session_id) : forward(session_id);
  }

 private:
  [[nodiscard]] HttpResponse close_session(std::string_view id) {
    SessionTable::Hold session = state_.sessions.find(id);
    if (!session) return kUnknownSession;
    state_.sessions.close(session);
    return kSessionClosed;
  }

  [[nodiscard]] HttpResponse forward(std::string_view session_id) {
    if (is_initialize(request_.body())) {
      if (!session_id.empty()) return kSessionReused;
      SessionTable::Hold session = state_.sessions.create();
      return session ? exchange(session, kInputFailed) : kSessionMissing;
    }
    SessionTable::Hold session = state_.sessions.find(session_id);
    if (session) return exchange(session, kSessionGone);
    return session_id.empty() ? kSessionMissing : kSessionGone;
  }

  /// `gone` is the response for a session that another thread has closed meanwhile.
  [[nodiscard]] HttpResponse exchange(SessionTable::Hold& session, const HttpResponse& gone) {
    TextOut header(response_header_);
    static_cast<void>(header.format("Mcp-Session-Id: %s\r\n", session.id()));
    const bool wants_reply = expects_reply(request_.body());
    const std::string_view message = request_.body_as_line();
    std::size_t length = 0;
    const Exchange outcome = wants_reply
                                 ? state_.sessions.ask(session, message, buffer_.data(), length)
                                 : state_.sessions.tell(session, message);
    switch (outcome) {
      case Exchange::kSessionGone:
        return gone;
      case Exchange::kInputFailed:
        return kInputFailed;
      case Exchange::kReplyFailed:
        return kReplyFailed;
      case Exchange::kDone:
        break;
    }
    HttpResponse response{.status = 202, .reason = "Accepted", .header = response_header_};
    if (wants_reply) {
      response.status = 200;
      response.reason = "OK";
      response.body = {buffer_.data(), length};
    }
    return response;
  }

  Socket& socket_;
  const char* port_text_;
  const HttpState& state_;
  HeapArray<char> buffer_;
  HttpRequest request_;
  char response_header_[kResponseHeaderCapacity] = {};
};

static_assert(kReplyLineLimit <= kRequestCapacity);

}  // namespace

void handle_connection(Socket& socket, const char* port_text, const HttpState& state) {
  Connection connection(socket, port_text, state);
  write_response(socket, connection.respond());
}

}  // namespace kova
