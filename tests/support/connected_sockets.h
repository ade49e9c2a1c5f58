// A connection on the loopback address, with both of its ends in the test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/socket.h"
#include "support/loopback_listener.h"

namespace kova::testing {

class ConnectedSockets {
 public:
  ConnectedSockets() {
    kova::LoopbackListener listener;
    std::string port;
    do {
      port = free_port();
    } while (!listener.listen(static_cast<std::uint16_t>(std::stoul(port))));
    AddressList addresses;
    if (!addresses.resolve("127.0.0.1", port.c_str()) ||
        !client.connect(addresses.first(), 60000) || !listener.accept(server)) {
      std::abort();
    }
  }

  void send(std::string_view bytes) { ASSERT_TRUE(client.send_all(bytes.data(), bytes.size())); }

  /// What the client receives until the end.
  [[nodiscard]] std::string receive_all() {
    std::string text;
    char block[4096];
    while (const std::size_t got = client.receive(block, sizeof block)) text.append(block, got);
    return text;
  }

 private:
  SocketLayer layer_;

 public:
  Socket client;
  Socket server;
};

}  // namespace kova::testing
