// A connection for whose request there is no memory.
#include "http/connection.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "platform/clock.h"
#include "support/allocation_failure.h"
#include "support/connected_sockets.h"
#include "support/environment.h"

namespace kova {
namespace {

using testing::AllocationFailure;
using testing::ConnectedSockets;
using testing::ScopedEnvironment;

const std::string kRequest = "POST /mcp HTTP/1.1\r\n\r\n";
const std::string kCommonHeaders =
    "Cache-Control: no-store\r\n"
    "Connection: close\r\n";
const std::string kMemoryLimit =
    "HTTP/1.1 503 Unavailable\r\n"
    "Content-Type: application/json\r\n"
    "Content-Length: 24\r\n" +
    kCommonHeaders + "\r\n" + R"({"error":"memory limit"})";
const std::string kRateExceeded =
    "HTTP/1.1 429 Too Many Requests\r\n"
    "Content-Type: application/json\r\n"
    "Content-Length: 31\r\n" +
    kCommonHeaders + "Retry-After: 60\r\n\r\n" + R"({"error":"rate limit exceeded"})";

class HttpConnection : public ::testing::Test {
 protected:
  /// What a client that has sent kRequest gets while the first allocation fails.
  std::string response_without_memory(ConnectedSockets& sockets) {
    sockets.send(kRequest);
    while (!sockets.server.has_waiting_bytes()) std::this_thread::yield();
    {
      const AllocationFailure failure(1);
      handle_connection(sockets.server, "8080", {.rate = rate, .sessions = sessions});
    }
    EXPECT_TRUE(AllocationFailure::happened());
    unread = sockets.server.has_waiting_bytes() ? read_some(sockets.server) : "";
    sockets.server.shut_down();
    return sockets.receive_all();
  }

  RateWindow rate;
  ChildStarter starter{nullptr};
  SessionTable sessions{starter, tick_ms};
  /// What the connection that was handled last has left in its socket.
  std::string unread;

 private:
  static std::string read_some(Socket& socket) {
    char block[256];
    return {block, socket.receive(block, sizeof block)};
  }
};

TEST_F(HttpConnection, WithoutMemoryForTheRequestNothingIsRead) {
  ConnectedSockets sockets;
  EXPECT_EQ(response_without_memory(sockets), kMemoryLimit);
  EXPECT_EQ(unread, kRequest);
}

TEST_F(HttpConnection, TheRateStandsBeforeTheMemoryAndCountsEveryRequest) {
  const ScopedEnvironment one("KOVA_MCP_HTTP_RATE_PER_MINUTE", "1");
  ConnectedSockets first;
  ConnectedSockets second;
  EXPECT_EQ(response_without_memory(first), kMemoryLimit);
  EXPECT_EQ(response_without_memory(second), kRateExceeded);
}

}  // namespace
}  // namespace kova
