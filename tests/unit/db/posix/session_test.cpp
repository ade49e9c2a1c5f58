// An engine that does not accept connections: a listener whose queue is full.
#include "db/session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/clock.h"
#include "unit/db/session_fixture.h"

namespace kova::testing {
namespace {

// A listening socket that accepts no further connection: its queue is full.
class FullListener {
 public:
  FullListener() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    auto* address = reinterpret_cast<sockaddr*>(&address_);
    EXPECT_EQ(bind(socket_, address, size), 0);
    EXPECT_EQ(getsockname(socket_, address, &size), 0);
    EXPECT_EQ(listen(socket_, 0), 0);
    for (int i = 0; i < 4; ++i) {
      waiting_.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      static_cast<void>(connect(waiting_.back(), address, size));
    }
  }
  ~FullListener() {
    for (const int connection : waiting_) close(connection);
    close(socket_);
  }
  FullListener(const FullListener&) = delete;
  FullListener& operator=(const FullListener&) = delete;

  [[nodiscard]] std::string port() const { return std::to_string(ntohs(address_.sin_port)); }

 private:
  int socket_;
  sockaddr_in address_{};
  std::vector<int> waiting_;
};

TEST_F(EngineSession, WaitsForAnEngineAsLongAsItMay) {
  EXPECT_EQ(session.probe_timeout_ms, 3000U);
  session.probe_timeout_ms = 60;
  const FullListener full;
  port_variable.set(full.port());
  const std::uint64_t start = tick_ms();
  EXPECT_FALSE(ensure_session(session));
  EXPECT_GE(tick_ms() - start + 1, 60U);
  EXPECT_EQ(library.calls(), Calls{});
}

}  // namespace
}  // namespace kova::testing
