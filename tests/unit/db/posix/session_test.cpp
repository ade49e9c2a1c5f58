// What needs a stack of the test's own, or a listener whose queue is full.
#include "db/session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "unit/db/session_fixture.h"

namespace kova::testing {
namespace {

void* open_session(void* session) {
  return ensure_session(*static_cast<DbSession*>(session)) ? session : nullptr;
}

// Nothing of the password stays anywhere on the stack of the thread that logs in.
TEST_F(EngineSession, LeavesNoPasswordOnTheStack) {
  constexpr std::size_t kStackSize = 1 << 20;
  const std::string password = "correct-horse-battery-staple-" + std::string(60, '~');
  password_variable.set(password);
  void* stack =
      mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(stack, MAP_FAILED);
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstack(&attributes, stack, kStackSize), 0);
  bool was_there = false;
  library.on_exec = [&](const char* statement) {
    const char* bytes = static_cast<const char*>(stack);
    if (statement >= bytes && statement < bytes + kStackSize)
      was_there |= std::string_view(statement).find(password) != std::string_view::npos;
  };
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, open_session, &session), 0);
  void* answer = nullptr;
  ASSERT_EQ(pthread_join(thread, &answer), 0);
  pthread_attr_destroy(&attributes);
  EXPECT_NE(answer, nullptr);
  EXPECT_TRUE(was_there);
  const std::string_view bytes(static_cast<const char*>(stack), kStackSize);
  EXPECT_EQ(bytes.find(password.substr(0, 12)), std::string_view::npos);
  EXPECT_EQ(bytes.find(std::string(12, '~')), std::string_view::npos);
  munmap(stack, kStackSize);
}

// A listening socket that answers no further connection: its queue is full.
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

TEST_F(EngineSession, WaitsThreeSecondsForAnEngine) {
  const FullListener full;
  port_variable.set(full.port());
  const std::uint64_t start = tick_ms();
  EXPECT_FALSE(ensure_session(session));
  const std::uint64_t waited = tick_ms() - start;
  EXPECT_GE(waited, 2900U);
  EXPECT_LT(waited, 15000U);
  EXPECT_EQ(library.calls(), Calls{});
}

}  // namespace
}  // namespace kova::testing
