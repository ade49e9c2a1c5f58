#include "http/gate.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/connected_sockets.h"
#include "support/environment.h"

namespace kova {
namespace {

using testing::ConnectedSockets;
using testing::ScopedEnvironment;

const std::string kToken = "0123456789abcdefABCDEF0123456789";

const std::string kPassed = "passed";
const std::string kRateExceededReply =
    "429 Too Many Requests|Retry-After: 60\r\n|"
    R"({"error":"rate limit exceeded"})";
const std::string kMemoryLimitReply =
    "503 Unavailable||"
    R"({"error":"memory limit"})";
const std::string kUnbounded =
    "413 Payload Too Large||"
    R"({"error":"bounded Content-Length required"})";
const std::string kUnknownPath =
    "404 Not Found||"
    R"({"error":"POST or DELETE /mcp required"})";
const std::string kNoToken =
    "503 Unavailable||"
    R"({"error":"HTTP bearer token is not configured"})";
const std::string kUnauthorized =
    "401 Unauthorized|WWW-Authenticate: Bearer\r\n|"
    R"({"error":"authentication failed"})";
const std::string kHostRefused =
    "403 Forbidden||"
    R"({"error":"host is not allowed"})";
const std::string kOriginRefused =
    "403 Forbidden||"
    R"({"error":"origin is not allowed"})";
const std::string kNotForwarded =
    "426 Upgrade Required||"
    R"({"error":"TLS proxy forwarding is required"})";

/// A request and the environment that lets it pass; a test spoils one or the other.
class Gate : public ::testing::Test {
 protected:
  /// The refusal, or kPassed.
  std::string judge() {
    ConnectedSockets sockets;
    std::string text = request_line + "\r\n";
    for (const auto& [name, value] : headers) text.append(name + ": " + value + "\r\n");
    text += "\r\n";
    std::thread sender([&] {
      sockets.send(text);
      sockets.client.shut_down();
    });
    std::vector<char> buffer(kRequestCapacity);
    HttpRequest request(has_memory ? buffer.data() : nullptr);
    HttpResponse refusal;
    const GateSubject subject{
        .socket = sockets.server, .request = request, .port_text = port, .rate = rate};
    const bool passed = pass_gate(subject, refusal);
    sender.join();
    if (passed) return kPassed;
    return std::to_string(refusal.status) + " " + refusal.reason + "|" + refusal.header + "|" +
           std::string(refusal.body);
  }

  std::string judge_header(const std::string& name, const std::string& value) {
    headers[name] = value;
    return judge();
  }

  std::string request_line = "POST /mcp HTTP/1.1";
  std::map<std::string, std::string> headers = {{"Authorization", "Bearer " + kToken},
                                                {"Host", "127.0.0.1:8080"},
                                                {"X-Forwarded-Proto", "https"}};
  const char* port = "8080";
  bool has_memory = true;
  RateWindow rate;

  ScopedEnvironment token{"KOVA_MCP_HTTP_BEARER_TOKEN", kToken};
  ScopedEnvironment limit{"KOVA_MCP_HTTP_RATE_PER_MINUTE"};
  ScopedEnvironment hosts{"KOVA_MCP_HTTP_ALLOWED_HOSTS"};
  ScopedEnvironment origins{"KOVA_MCP_HTTP_ALLOWED_ORIGINS"};
  ScopedEnvironment plaintext{"KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK"};
};

TEST_F(Gate, PostAndDeleteOfTheOnePathPass) {
  EXPECT_EQ(judge(), kPassed);
  request_line = "DELETE /mcp HTTP/1.1";
  EXPECT_EQ(judge(), kPassed);
  for (const char* const line :
       {"GET /mcp HTTP/1.1", "POST /mcp?x HTTP/1.1", "POST /mcp HTTP/1.0", "post /mcp HTTP/1.1",
        "POST /mcp/ HTTP/1.1", "DELETE /mcp HTTP/1.0", " POST /mcp HTTP/1.1"}) {
    request_line = line;
    EXPECT_EQ(judge(), kUnknownPath) << line;
  }
}

TEST_F(Gate, OfSeveralFaultsTheFirstOneIsAnswered) {
  plaintext.set("2");
  headers.erase("X-Forwarded-Proto");
  EXPECT_EQ(judge(), kNotForwarded);
  headers["Origin"] = "https://elsewhere.example";
  EXPECT_EQ(judge(), kOriginRefused);
  headers["Host"] = "elsewhere.example";
  EXPECT_EQ(judge(), kHostRefused);
  headers["Authorization"] = "Bearer nobody";
  EXPECT_EQ(judge(), kUnauthorized);
  token.set("short");
  EXPECT_EQ(judge(), kNoToken);
  request_line = "GET /mcp HTTP/1.1";
  EXPECT_EQ(judge(), kUnknownPath);
  headers["Content-Length"] = "-1";
  EXPECT_EQ(judge(), kUnbounded);
  has_memory = false;
  EXPECT_EQ(judge(), kMemoryLimitReply);
  limit.set("1");
  EXPECT_EQ(judge(), kRateExceededReply);
}

class GateRate : public Gate, public ::testing::WithParamInterface<const char*> {};

TEST_P(GateRate, WithoutAPositiveNumberThereAre120AMinute) {
  if (*GetParam() != '\0') limit.set(GetParam());
  // Refused requests count too; these need neither memory nor bytes.
  has_memory = false;
  for (int i = 0; i < 120; ++i) ASSERT_EQ(judge(), kMemoryLimitReply) << i;
  EXPECT_EQ(judge(), kRateExceededReply);
}

INSTANTIATE_TEST_SUITE_P(Settings, GateRate, ::testing::Values("", "0", "-5", "x", "120"));

TEST_F(Gate, TheRateThatIsSetHolds) {
  has_memory = false;
  limit.set("2");
  EXPECT_EQ(judge(), kMemoryLimitReply);
  EXPECT_EQ(judge(), kMemoryLimitReply);
  EXPECT_EQ(judge(), kRateExceededReply);
  // Beyond 32 bits, as many as can be counted; not the lowest 32 bits of the number.
  for (const char* const large : {"4294967295", "4294967297", "18446744073709551615"}) {
    limit.set(large);
    EXPECT_EQ(judge(), kMemoryLimitReply) << large;
  }
}

TEST_F(Gate, TheTokenHasAtLeast32Characters) {
  token.unset();
  EXPECT_EQ(judge(), kNoToken);
  token.set(kToken.substr(1));
  EXPECT_EQ(judge_header("Authorization", "Bearer " + kToken.substr(1)), kNoToken);
  token.set(kToken + "x");
  EXPECT_EQ(judge_header("Authorization", "Bearer " + kToken + "x"), kPassed);
}

TEST_F(Gate, TheSchemeInAnyCaseAndTheTokenExactly) {
  for (const char* const scheme : {"Bearer ", "bearer ", "BEARER "}) {
    EXPECT_EQ(judge_header("Authorization", scheme + kToken), kPassed) << scheme;
  }
  for (const std::string& value :
       {kToken, "Bearer" + kToken, "Bearer  " + kToken, "Bearer\t" + kToken, "Basic " + kToken,
        "xBearer " + kToken, "Bearer " + kToken + "x", "Bearer x" + kToken,
        "Bearer " + kToken.substr(1), std::string("Bearer 0123456789ABCDEFabcdef0123456789"),
        std::string("Bearer"), std::string("Bearer ")}) {
    EXPECT_EQ(judge_header("Authorization", value), kUnauthorized) << value;
  }
  headers.erase("Authorization");
  EXPECT_EQ(judge(), kUnauthorized);
}

TEST_F(Gate, AnAuthorizationOfUnder1024Characters) {
  const std::string longest(1023 - 7, 't');
  token.set(longest);
  EXPECT_EQ(judge_header("Authorization", "Bearer " + longest), kPassed);
  token.set(longest + "t");
  EXPECT_EQ(judge_header("Authorization", "Bearer " + longest + "t"), kUnauthorized);
}

TEST_F(Gate, WithoutAListTheLoopbackNamesWithThePort) {
  for (const char* const host : {"127.0.0.1:8080", "localhost:8080", "LOCALHOST:8080"}) {
    EXPECT_EQ(judge_header("Host", host), kPassed) << host;
  }
  for (const char* const host : {"localhost", "127.0.0.1", "127.0.0.1:80", "localhost:8081",
                                 "[::1]:8080", "", "127.0.0.1:8080,localhost:8080"}) {
    EXPECT_EQ(judge_header("Host", host), kHostRefused) << host;
  }
  headers.erase("Host");
  EXPECT_EQ(judge(), kHostRefused);
}

TEST_F(Gate, APortThatIsTooLongForTheNamesAllowsNone) {
  const std::string fits(21, '8');
  port = fits.c_str();
  EXPECT_EQ(judge_header("Host", "localhost:" + fits), kPassed);
  const std::string too_long(22, '8');
  port = too_long.c_str();
  for (const std::string& host : {"localhost:" + too_long, "127.0.0.1:" + too_long}) {
    EXPECT_EQ(judge_header("Host", host), kHostRefused) << host;
  }
}

TEST_F(Gate, TheListOfHostsStandsInForTheLoopbackNames) {
  hosts.set("mcp.example, other.example");
  EXPECT_EQ(judge_header("Host", "MCP.example"), kPassed);
  EXPECT_EQ(judge_header("Host", "other.example"), kPassed);
  EXPECT_EQ(judge_header("Host", "127.0.0.1:8080"), kHostRefused);
  const std::string longest(511, 'h');
  hosts.set(longest);
  EXPECT_EQ(judge_header("Host", longest), kPassed);
  // An item counts with its first 511 characters; a value of more is refused before.
  hosts.set(longest + "h");
  EXPECT_EQ(judge_header("Host", longest), kPassed);
  EXPECT_EQ(judge_header("Host", longest + "h"), kHostRefused);
}

TEST_F(Gate, AnOriginIsInTheList) {
  EXPECT_EQ(judge_header("Origin", "https://a.example"), kOriginRefused);
  origins.set("https://b.example,https://a.example");
  EXPECT_EQ(judge_header("Origin", "https://A.example"), kPassed);
  EXPECT_EQ(judge_header("Origin", "https://c.example"), kOriginRefused);
  EXPECT_EQ(judge_header("Origin", ""), kOriginRefused);
}

TEST_F(Gate, AnOriginOf512CharactersCountsAsNone) {
  EXPECT_EQ(judge_header("Origin", std::string(511, 'o')), kOriginRefused);
  EXPECT_EQ(judge_header("Origin", std::string(512, 'o')), kPassed);
}

TEST_F(Gate, ThroughTlsOrWithoutItByTheSwitch) {
  EXPECT_EQ(judge_header("X-Forwarded-Proto", "HTTPS"), kPassed);
  for (const char* const value : {"http", "", "https,http", "httpss", "xhttps"}) {
    EXPECT_EQ(judge_header("X-Forwarded-Proto", value), kNotForwarded) << value;
  }
  for (const char* const yes : {"1", "TRUE", "yes", "On"}) {
    plaintext.set(yes);
    EXPECT_EQ(judge(), kPassed) << yes;
  }
  for (const char* const no : {"2", "", "0", "off"}) {
    plaintext.set(no);
    EXPECT_EQ(judge(), kNotForwarded) << no;
  }
  plaintext.set("1");
  headers.erase("X-Forwarded-Proto");
  EXPECT_EQ(judge(), kPassed);
}

}  // namespace
}  // namespace kova
