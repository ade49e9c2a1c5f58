// Nothing of the password stays anywhere on the stack of the thread that logs in.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <string>
#include <string_view>

#include "db/session.h"
#include "unit/db/session_fixture.h"

namespace kova::testing {
namespace {

void* open_session(void* session) {
  return ensure_session(*static_cast<DbSession*>(session)) ? session : nullptr;
}

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
  void* result = nullptr;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  pthread_attr_destroy(&attributes);
  EXPECT_NE(result, nullptr);
  EXPECT_TRUE(was_there);
  const std::string_view bytes(static_cast<const char*>(stack), kStackSize);
  EXPECT_EQ(bytes.find(password.substr(0, 12)), std::string_view::npos);
  EXPECT_EQ(bytes.find(std::string(12, '~')), std::string_view::npos);
  munmap(stack, kStackSize);
}

}  // namespace
}  // namespace kova::testing
