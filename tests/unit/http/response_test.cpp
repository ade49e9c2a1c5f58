#include "http/response.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "support/connected_sockets.h"

namespace kova {
namespace {

using testing::ConnectedSockets;

std::string written(const HttpResponse& response) {
  ConnectedSockets sockets;
  std::string text;
  std::thread reader([&] { text = sockets.receive_all(); });
  write_response(sockets.server, response);
  sockets.server.shut_down();
  reader.join();
  return text;
}

TEST(HttpResponse, WithHeaderAndBody) {
  EXPECT_EQ(written({.status = 200, .reason = "OK", .header = "A: b\r\n", .body = "{}"}),
            "HTTP/1.1 200 OK\r\n"
            "Content-Type: application/json\r\n"
            "Content-Length: 2\r\n"
            "Cache-Control: no-store\r\n"
            "Connection: close\r\n"
            "A: b\r\n"
            "\r\n"
            "{}");
}

TEST(HttpResponse, Empty) {
  EXPECT_EQ(written({.status = 204, .reason = "No Content", .header = "", .body = ""}),
            "HTTP/1.1 204 No Content\r\n"
            "Content-Type: application/json\r\n"
            "Content-Length: 0\r\n"
            "Cache-Control: no-store\r\n"
            "Connection: close\r\n"
            "\r\n");
}

TEST(HttpResponse, ALongBodyComesWhole) {
  const std::string body(262144, 'b');
  const std::string text = written({.status = 200, .reason = "OK", .header = "", .body = body});
  EXPECT_TRUE(text.ends_with("\r\n\r\n" + body));
}

// Bytes that nobody has read when a socket is closed would reset the connection.
TEST(HttpResponse, BeforeA429WhatTheClientHasSentIsTakenIn) {
  for (const int status : {kTooManyRequests, 404}) {
    ConnectedSockets sockets;
    sockets.send(std::string(1000, 'x'));
    while (!sockets.server.has_waiting_bytes()) std::this_thread::yield();
    write_response(sockets.server, {.status = status, .reason = "R", .header = "", .body = "b"});
    EXPECT_EQ(sockets.server.has_waiting_bytes(), status != kTooManyRequests);
  }
}

TEST(HttpResponse, AClientThatHasGoneIsNoFailure) {
  ConnectedSockets sockets;
  sockets.client.close();
  const std::string body(262144, 'b');
  for (int i = 0; i < 20; ++i) {
    write_response(sockets.server, {.status = 200, .reason = "OK", .header = "", .body = body});
  }
}

}  // namespace
}  // namespace kova
