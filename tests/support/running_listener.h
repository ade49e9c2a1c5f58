// An HTTP listener inside the test program.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/socket.h"
#include "support/current_thread.h"
#include "support/loopback_listener.h"

namespace kova::testing {

/// A listener that runs as long as this program, as nothing in here ends its accept loop; never
/// destroyed therefore.
class RunningListener {
 public:
  /// `run` is given the port; it returns when it cannot listen there.
  explicit RunningListener(std::function<void(const char* port)> run) : run_(std::move(run)) {
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
    port_ = free_port();
    ended_ = false;
    std::thread([this] {
      thread_ = current_thread();
      run_(port_.c_str());
      ended_ = true;
    }).detach();
  }

  const std::function<void(const char* port)> run_;
  const SocketLayer layer_;
  std::string port_ = "0";
  std::atomic<std::uintptr_t> thread_{0};
  std::atomic<bool> ended_{true};
};

}  // namespace kova::testing
