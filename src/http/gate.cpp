#include "http/gate.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>

#include "base/ascii.h"
#include "base/decimal.h"
#include "base/secret.h"
#include "base/text.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace kova {

namespace {

constexpr std::uint32_t kDefaultRate = 120;
constexpr std::size_t kTokenMinimum = 32;
constexpr std::string_view kBearer = "Bearer ";
constexpr std::size_t kAuthorizationCapacity = 1024;
constexpr std::size_t kHostCapacity = 512;
constexpr std::size_t kOriginCapacity = 512;
constexpr std::size_t kForwardedProtoCapacity = 32;
constexpr std::size_t kDefaultHostsCapacity = 64;

/// The bearer token, read anew for each question.
class BearerToken : public EnvironmentValue {
 public:
  BearerToken() : EnvironmentValue("KOVA_MCP_HTTP_BEARER_TOKEN") {}
};

std::uint32_t rate_limit() {
  const EnvironmentValue configured("KOVA_MCP_HTTP_RATE_PER_MINUTE");
  const std::uint64_t value = whole_decimal(configured.view()).value_or(0);
  constexpr std::uint64_t kRateLimit = std::numeric_limits<std::uint32_t>::max();
  return value > 0 ? static_cast<std::uint32_t>(std::min(value, kRateLimit)) : kDefaultRate;
}

bool is_within_rate(const GateSubject& subject) {
  return subject.rate.admit(tick_ms(), rate_limit());
}

bool has_memory(const GateSubject& subject) {
  return subject.request.has_buffer();
}

bool is_received(const GateSubject& subject) {
  return subject.request.receive(subject.socket);
}

bool is_for_mcp(const GateSubject& subject) {
  return subject.request.is_post() || subject.request.is_delete();
}

bool is_token_configured(const GateSubject& /*subject*/) {
  return BearerToken().view().size() >= kTokenMinimum;
}

bool is_authorized(const GateSubject& subject) {
  const BearerToken token;
  const auto value = subject.request.header("Authorization", kAuthorizationCapacity);
  return value && equal_ignoring_case(slice(*value, 0, kBearer.size()), kBearer) &&
         equal_constant_time(slice(*value, kBearer.size()), token.view());
}

bool is_host_allowed(const GateSubject& subject) {
  const auto value = subject.request.header("Host", kHostCapacity);
  if (!value) return false;
  const EnvironmentValue configured("KOVA_MCP_HTTP_ALLOWED_HOSTS");
  if (configured.is_set()) return is_in_list(*value, configured.view());
  char text[kDefaultHostsCapacity];
  TextOut hosts(text);
  return hosts.format("127.0.0.1:%s,localhost:%s", subject.port_text, subject.port_text) &&
         is_in_list(*value, hosts.view());
}

// An over-long Origin counts as none.
bool is_origin_allowed(const GateSubject& subject) {
  const auto value = subject.request.header("Origin", kOriginCapacity);
  return !value || is_in_list(*value, EnvironmentValue("KOVA_MCP_HTTP_ALLOWED_ORIGINS").view());
}

bool came_through_tls(const GateSubject& subject) {
  const auto value = subject.request.header("X-Forwarded-Proto", kForwardedProtoCapacity);
  return equal_ignoring_case(value.value_or(""), "https") ||
         means_yes(EnvironmentValue("KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK").view());
}

struct Question {
  bool (*holds)(const GateSubject& subject);
  HttpResponse refusal;
};

constexpr Question kQuestions[] = {
    {.holds = is_within_rate,
     .refusal = {.status = kTooManyRequests,
                 .reason = "Too Many Requests",
                 .header = "Retry-After: 60\r\n",
                 .body = R"({"error":"rate limit exceeded"})"}},
    {.holds = has_memory,
     .refusal = {.status = 503, .reason = "Unavailable", .body = R"({"error":"memory limit"})"}},
    {.holds = is_received,
     .refusal = {.status = 413,
                 .reason = "Payload Too Large",
                 .body = R"({"error":"bounded Content-Length required"})"}},
    {.holds = is_for_mcp,
     .refusal = {.status = 404,
                 .reason = "Not Found",
                 .body = R"({"error":"POST or DELETE /mcp required"})"}},
    {.holds = is_token_configured,
     .refusal = {.status = 503,
                 .reason = "Unavailable",
                 .body = R"({"error":"HTTP bearer token is not configured"})"}},
    {.holds = is_authorized,
     .refusal = {.status = 401,
                 .reason = "Unauthorized",
                 .header = "WWW-Authenticate: Bearer\r\n",
                 .body = R"({"error":"authentication failed"})"}},
    {.holds = is_host_allowed,
     .refusal = {.status = 403,
                 .reason = "Forbidden",
                 .body = R"({"error":"host is not allowed"})"}},
    {.holds = is_origin_allowed,
     .refusal = {.status = 403,
                 .reason = "Forbidden",
                 .body = R"({"error":"origin is not allowed"})"}},
    {.holds = came_through_tls,
     .refusal = {.status = 426,
                 .reason = "Upgrade Required",
                 .body = R"({"error":"TLS proxy forwarding is required"})"}},
};

}  // namespace

bool pass_gate(const GateSubject& subject, HttpResponse& refusal) {
  for (const Question& question : kQuestions) {
    if (question.holds(subject)) continue;
    refusal = question.refusal;
    return false;
  }
  return true;
}

}  // namespace kova
