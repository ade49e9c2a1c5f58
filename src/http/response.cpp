#include "http/response.h"

#include "base/drain.h"
#include "base/text.h"

namespace kova {

namespace {

constexpr std::size_t kHeadCapacity = 1024;

void drain_waiting_bytes(Socket& socket) {
  drain([&](char* dropped, std::size_t size) {
    return socket.has_waiting_bytes() ? socket.receive(dropped, size) : 0;
  });
}

}  // namespace

void write_response(Socket& socket, const HttpResponse& response) {
  char text[kHeadCapacity];
  TextOut head(text);
  if (!head.format("HTTP/1.1 %d %s\r\n"
                   "Content-Type: application/json\r\n"
                   "Content-Length: %u\r\n"
                   "Cache-Control: no-store\r\n"
                   "Connection: close\r\n"
                   "%s\r\n",
                   response.status, response.reason, static_cast<unsigned>(response.body.size()),
                   response.header)) {
    return;
  }
  if (response.status == kTooManyRequests) drain_waiting_bytes(socket);
  if (!socket.send_all(head.view().data(), head.length()) || response.body.empty()) return;
  static_cast<void>(socket.send_all(response.body.data(), response.body.size()));
}

}  // namespace kova
