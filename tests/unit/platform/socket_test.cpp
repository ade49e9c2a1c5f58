#include "platform/socket.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>

#include "support/connected_sockets.h"

namespace kova {
namespace {

using testing::ConnectedSockets;

TEST(Socket, ReceivesWhatIsThere) {
  ConnectedSockets sockets;
  EXPECT_FALSE(sockets.server.has_waiting_bytes());
  sockets.send("abc");
  char bytes[16];
  EXPECT_EQ(sockets.server.receive(bytes, 2), 2U);
  EXPECT_EQ(std::string(bytes, 2), "ab");
  EXPECT_TRUE(sockets.server.has_waiting_bytes());
  EXPECT_EQ(sockets.server.receive(bytes, sizeof bytes), 1U);
  EXPECT_EQ(bytes[0], 'c');
  EXPECT_FALSE(sockets.server.has_waiting_bytes());
}

TEST(Socket, AnEndOfThePeerIsTheEnd) {
  ConnectedSockets sockets;
  sockets.send("a");
  sockets.client.shut_down();
  char bytes[16];
  EXPECT_EQ(sockets.server.receive(bytes, sizeof bytes), 1U);
  EXPECT_EQ(sockets.server.receive(bytes, sizeof bytes), 0U);
  EXPECT_EQ(sockets.server.receive(bytes, sizeof bytes), 0U);
}

TEST(Socket, ShutDownIsTheEndForThePeer) {
  ConnectedSockets sockets;
  const std::string text = "the last words";
  ASSERT_TRUE(sockets.server.send_all(text.data(), text.size()));
  sockets.server.shut_down();
  EXPECT_EQ(sockets.receive_all(), text);
}

TEST(Socket, AMovedOneLeavesNothingBehind) {
  ConnectedSockets sockets;
  sockets.send("a");
  {
    Socket moved = std::move(sockets.server);
    char byte = 0;
    EXPECT_EQ(moved.receive(&byte, 1), 1U);
  }
  EXPECT_EQ(sockets.receive_all(), "");
}

TEST(LoopbackListener, OnePortOneListener) {
  const SocketLayer layer;
  bool taken_over = false;
  // Another process may take the port between the two.
  for (int round = 0; round < 20 && !taken_over; ++round) {
    LoopbackListener first;
    LoopbackListener second;
    const auto port = static_cast<std::uint16_t>(std::stoul(testing::free_port()));
    if (!first.listen(port)) continue;
    EXPECT_FALSE(second.listen(port));
    first.close();
    taken_over = second.listen(port);
  }
  EXPECT_TRUE(taken_over);
}

// A client that was served last closes later than the listener, and its port stays free.
TEST(LoopbackListener, APortIsFreeAgainAtOnce) {
  const SocketLayer layer;
  bool listened_again = false;
  // Another process may take the port before or between.
  for (int round = 0; round < 20 && !listened_again; ++round) {
    const auto port = static_cast<std::uint16_t>(std::stoul(testing::free_port()));
    LoopbackListener listener;
    if (!listener.listen(port)) continue;
    AddressList addresses;
    ASSERT_TRUE(addresses.resolve("127.0.0.1", std::to_string(port).c_str()));
    Socket client;
    Socket server;
    ASSERT_TRUE(client.connect(addresses.first(), 60000));
    ASSERT_TRUE(listener.accept(server));
    server.shut_down();
    server.close();
    char byte = 0;
    EXPECT_EQ(client.receive(&byte, 1), 0U);
    listener.close();
    LoopbackListener again;
    listened_again = again.listen(port);
  }
  EXPECT_TRUE(listened_again);
}

}  // namespace
}  // namespace kova
