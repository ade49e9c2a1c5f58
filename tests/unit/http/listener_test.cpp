// Connections that the listener cannot serve.
#include "http/listener.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <string_view>
#include <thread>

#include "platform/socket.h"
#include "support/allocation_failure.h"
#include "support/current_thread.h"
#include "support/loopback_listener.h"
#include "support/thread_failure.h"

namespace kova {
namespace {

const std::string kConnectionLimit =
    "HTTP/1.1 503 Unavailable\r\n"
    "Content-Type: application/json\r\n"
    "Content-Length: 28\r\n"
    "Cache-Control: no-store\r\n"
    "Connection: close\r\n"
    "\r\n"
    R"({"error":"connection limit"})";

/// A listener that runs as long as this program: nothing in here ends its accept loop.
class RunningListener {
 public:
  RunningListener() {
    while (!is_served()) {
      if (ended_) start();
      std::this_thread::yield();
    }
  }
  RunningListener(const RunningListener&) = delete;
  RunningListener& operator=(const RunningListener&) = delete;

  /// The thread that accepts.
  [[nodiscard]] std::uintptr_t thread() const { return thread_; }

  /// What a client gets that sends so much and then reads to the end, or gives up.
  [[nodiscard]] std::string response_to(std::string_view request) {
    AddressList addresses;
    Socket client;
    if (!addresses.resolve("127.0.0.1", port_.c_str()) ||
        !client.connect(addresses.first(), kPatience.count()) ||
        !client.send_all(request.data(), request.size())) {
      return "no connection";
    }
    std::future<std::string> response = std::async(std::launch::async, read_to_end, &client);
    if (response.wait_for(kPatience) == std::future_status::ready) return response.get();
    client.shut_down();
    return response.get() + " and no end";
  }
  /// Once a client has its response, the accepting thread allocates nothing for it any more.
  [[nodiscard]] bool is_served() {
    return response_to("GET / HTTP/1.1\r\n\r\n").starts_with("HTTP/1.1 404 ");
  }

 private:
  static constexpr std::chrono::duration<std::uint32_t, std::milli> kPatience{20000};

  static std::string read_to_end(Socket* client) {
    char block[4096];
    std::string text;
    while (const std::size_t got = client->receive(block, sizeof block)) text.append(block, got);
    return text;
  }

  // Somebody else may take the port first.
  void start() {
    port_ = testing::free_port();
    ended_ = false;
    std::thread([this] {
      thread_ = testing::current_thread();
      static_cast<void>(run_http_listener(port_.c_str()));
      ended_ = true;
    }).detach();
  }

  const SocketLayer layer_;
  std::string port_ = "0";
  std::atomic<std::uintptr_t> thread_{0};
  std::atomic<bool> ended_{true};
};

RunningListener& listener() {
  static RunningListener& running = *new RunningListener;
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
