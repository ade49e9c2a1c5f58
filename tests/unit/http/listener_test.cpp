// Connections that the listener cannot serve.
#include "http/listener.h"

#include <gtest/gtest.h>

#include <string>

#include "support/allocation_failure.h"
#include "support/running_listener.h"
#include "support/thread_failure.h"

namespace kova {
namespace {

using testing::RunningListener;

const std::string kConnectionLimit =
    "HTTP/1.1 503 Unavailable\r\n"
    "Content-Type: application/json\r\n"
    "Content-Length: 28\r\n"
    "Cache-Control: no-store\r\n"
    "Connection: close\r\n"
    "\r\n"
    R"({"error":"connection limit"})";

RunningListener& listener() {
  static RunningListener& running = *new RunningListener(
      [](const char* port) { static_cast<void>(run_http_listener(port, nullptr)); });
  return running;
}

TEST(HttpListener, AConnectionWithoutMemoryIsAnsweredThatThereIsALimit) {
  RunningListener& running = listener();
  {
    const testing::AllocationFailure failure(1, running.thread());
    // Bytes that nobody reads would take the response with them.
    EXPECT_EQ(running.response_to(""), kConnectionLimit);
    EXPECT_TRUE(testing::AllocationFailure::happened());
  }
  EXPECT_TRUE(running.is_served());
}

TEST(HttpListener, AConnectionWithoutAThreadIsClosedWithoutAnAnswer) {
  RunningListener& running = listener();
  {
    const testing::ThreadFailure failure;
    EXPECT_EQ(running.response_to(""), "");
  }
  EXPECT_TRUE(running.is_served());
}

}  // namespace
}  // namespace kova
