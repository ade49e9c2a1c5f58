#include "http/gate.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <limits>

#include "base/ascii.h"
#include "base/decimal.h"
#include "base/secret.h"
#include "base/text.h"
#include "http/request.h"
#include "http/response.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace kova {

namespace {

constexpr std::uint32_t kDefaultRate = 120;
constexpr std::size_t kLeastTokenLength = 32;
constexpr std::string_view kBearer = "Bearer ";
constexpr std::size_t kAuthorizationCapacity = 1024;
constexpr std::size_t kHostCapacity = 512;
constexpr std::size_t kOriginCapacity = 512;
constexpr std::size_t kForwardedProtoCapacity = 32;
constexpr std::size_t kSessionHeaderCapacity = 96;
constexpr std::size_t kDefaultHostsCapacity = 64;
constexpr std::size_t kResponseHeaderCapacity = 96;

constexpr HttpResponse refusal(int status, const char* reason, std::string_view body,
                               const char* header = "") {
  return {.status = status, .reason = reason, .header = header, .body = body};
}

constexpr HttpResponse kRateExceeded =
    refusal(kTooManyRequests, "Too Many Requests", R"({"error":"rate limit exceeded"})",
            "Retry-After: 60\r\n");
constexpr HttpResponse kMemoryLimit = refusal(503, "Unavailable", R"({"error":"memory limit"})");
constexpr HttpResponse kUnbounded =
    refusal(413, "Payload Too Large", R"({"error":"bounded Content-Length required"})");
constexpr HttpResponse kUnknownPath =
    refusal(404, "Not Found", R"({"error":"POST or DELETE /mcp required"})");
constexpr HttpResponse kNoToken =
    refusal(503, "Unavailable", R"({"error":"HTTP bearer token is not configured"})");
constexpr HttpResponse kUnauthorized = refusal(
    401, "Unauthorized", R"({"error":"authentication failed"})", "WWW-Authenticate: Bearer\r\n");
constexpr HttpResponse kHostRefused =
    refusal(403, "Forbidden", R"({"error":"host is not allowed"})");
constexpr HttpResponse kOriginRefused =
    refusal(403, "Forbidden", R"({"error":"origin is not allowed"})");
constexpr HttpResponse kPlaintext =
    refusal(426, "Upgrade Required", R"({"error":"TLS proxy forwarding is required"})");
constexpr HttpResponse kUnknownSession =
    refusal(404, "Not Found", R"({"error":"session not found"})");
constexpr HttpResponse kSessionReused =
    refusal(400, "Bad Request", R"({"error":"initialize must not reuse a session"})");
constexpr std::string_view kSessionRequired = R"({"error":"valid MCP session required"})";
constexpr HttpResponse kSessionMissing = refusal(400, "Bad Request", kSessionRequired);
constexpr HttpResponse kSessionGone = refusal(404, "Not Found", kSessionRequired);
constexpr HttpResponse kInputFailed =
    refusal(502, "Bad Gateway", R"({"error":"MCP session failed"})");
constexpr HttpResponse kAnswerFailed =
    refusal(502, "Bad Gateway", R"({"error":"MCP response failed"})");
constexpr HttpResponse kSessionClosed = refusal(204, "No Content", "");

std::uint32_t rate_limit() {
  const EnvironmentValue configured("KOVA_MCP_HTTP_RATE_PER_MINUTE");
  const std::uint64_t value = whole_decimal(configured.view()).value_or(0);
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint32_t>::max();
  return value > 0 ? static_cast<std::uint32_t>(std::min(value, kMost)) : kDefaultRate;
}

bool is_post(const HttpRequest& request) {
  return request.received().starts_with("POST /mcp HTTP/1.1\r\n");
}

bool is_delete(const HttpRequest& request) {
  return request.received().starts_with("DELETE /mcp HTTP/1.1\r\n");
}

bool is_authorized(const HttpRequest& request, std::string_view token) {
  const auto value = request.header("Authorization", kAuthorizationCapacity);
  return value && equal_ignoring_case(slice(*value, 0, kBearer.size()), kBearer) &&
         equal_constant_time(slice(*value, kBearer.size()), token);
}

bool is_host_allowed(const HttpRequest& request, const char* port_text) {
  const auto value = request.header("Host", kHostCapacity);
  if (!value) return false;
  const EnvironmentValue configured("KOVA_MCP_HTTP_ALLOWED_HOSTS");
  if (configured.is_set()) return is_in_list(*value, configured.view());
  char text[kDefaultHostsCapacity];
  TextOut hosts(text);
  return hosts.format("127.0.0.1:%s,localhost:%s", port_text, port_text) &&
         is_in_list(*value, hosts.view());
}

bool is_origin_allowed(const HttpRequest& request) {
  const auto value = request.header("Origin", kOriginCapacity);
  return !value || is_in_list(*value, EnvironmentValue("KOVA_MCP_HTTP_ALLOWED_ORIGINS").view());
}

bool is_plaintext_allowed() {
  const EnvironmentValue configured("KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK");
  return std::ranges::any_of(
      std::initializer_list<std::string_view>{"1", "true", "yes", "on"},
      [&](std::string_view word) { return equal_ignoring_case(configured.view(), word); });
}

bool came_through_tls(const HttpRequest& request) {
  const auto value = request.header("X-Forwarded-Proto", kForwardedProtoCapacity);
  return value && equal_ignoring_case(*value, "https");
}

bool is_initialize(std::string_view body) {
  return body.find(R"("method":"initialize")") != std::string_view::npos ||
         body.find(R"("method" : "initialize")") != std::string_view::npos;
}

bool expects_answer(std::string_view body) {
  return body.find(R"("id")") != std::string_view::npos;
}

/// One request in its buffer. The answer of its session takes the request's place.
class Connection {
 public:
  Connection(Socket& socket, const char* port_text, const HttpState& state)
      : socket_(socket),
        port_text_(port_text),
        state_(state),
        buffer_(static_cast<char*>(std::malloc(kRequestCapacity))),
        request_(buffer_) {}
  ~Connection() {
    // It holds the client's token.
    if (buffer_ != nullptr) wipe(buffer_, request_.received().size());
    std::free(buffer_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// What it answers is valid as long as this object.
  [[nodiscard]] HttpResponse respond() {
    if (!state_.rate.admit(tick_ms(), rate_limit())) return kRateExceeded;
    if (buffer_ == nullptr) return kMemoryLimit;
    if (!request_.receive(socket_)) return kUnbounded;
    if (!is_post(request_) && !is_delete(request_)) return kUnknownPath;
    const EnvironmentValue token("KOVA_MCP_HTTP_BEARER_TOKEN");
    if (token.view().size() < kLeastTokenLength) return kNoToken;
    if (!is_authorized(request_, token.view())) return kUnauthorized;
    if (!is_host_allowed(request_, port_text_)) return kHostRefused;
    if (!is_origin_allowed(request_)) return kOriginRefused;
    if (!came_through_tls(request_) && !is_plaintext_allowed()) return kPlaintext;
    const std::string_view session_id =
        request_.header("Mcp-Session-Id", kSessionHeaderCapacity).value_or(std::string_view());
    return is_delete(request_) ? end_session(session_id) : forward(session_id);
  }

 private:
  [[nodiscard]] HttpResponse end_session(std::string_view id) {
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

  /// `gone` answers for a session that another thread has ended in between.
  [[nodiscard]] HttpResponse exchange(SessionTable::Hold& session, const HttpResponse& gone) {
    TextOut header(response_header_);
    static_cast<void>(header.format("Mcp-Session-Id: %s\r\n", session.id()));
    const bool wants_answer = expects_answer(request_.body());
    const std::string_view message = request_.body_as_line();
    std::size_t length = 0;
    const Exchange outcome = wants_answer ? state_.sessions.ask(session, message, buffer_, length)
                                          : state_.sessions.tell(session, message);
    switch (outcome) {
      case Exchange::kSessionGone:
        return gone;
      case Exchange::kInputFailed:
        return kInputFailed;
      case Exchange::kAnswerFailed:
        return kAnswerFailed;
      case Exchange::kDone:
        break;
    }
    return wants_answer
               ? HttpResponse{.status = 200,
                              .reason = "OK",
                              .header = response_header_,
                              .body = {buffer_, length}}
               : HttpResponse{
                     .status = 202, .reason = "Accepted", .header = response_header_, .body = {}};
  }

  Socket& socket_;
  const char* port_text_;
  const HttpState& state_;
  char* buffer_;
  HttpRequest request_;
  char response_header_[kResponseHeaderCapacity] = {};
};

static_assert(kAnswerLimit <= kRequestCapacity);

}  // namespace

void handle_connection(Socket& socket, const char* port_text, const HttpState& state) {
  Connection connection(socket, port_text, state);
  write_response(socket, connection.respond());
}

}  // namespace kova
