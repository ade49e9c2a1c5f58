// Nothing of the password stays on the stack of the call that logs in.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "db/session.h"
#include "unit/db/session_fixture.h"
#include "wiping/stack_residue.h"

namespace kova::testing {
namespace {

// The longest run of the byte in memory that a finished function has left. The bytes are looked at
// where they lie: copying them first would overwrite the very stack that is in question.
__attribute__((noinline)) int longest_run(char byte, std::uintptr_t address, std::size_t size) {
  const volatile char* bytes = reinterpret_cast<const volatile char*>(address);
  int longest = 0;
  int run = 0;
  for (std::size_t i = 0; i < size; ++i) {
    run = bytes[i] == byte ? run + 1 : 0;
    longest = run > longest ? run : longest;
  }
  return longest;
}

TEST_F(EngineSession, TheLoginStatementIsWiped) {
  constexpr std::size_t kStatementRoom = 512;
  for (const std::int64_t code : {1, 0}) {
    const std::string password(255, '\x7E');
    password_variable.set(password);
    library.answer("login reader," + password + ";", {.code = code});
    std::uintptr_t login = 0;
    int seen = 0;
    library.on_exec = [&](const char* statement) {
      login = reinterpret_cast<std::uintptr_t>(statement);
      seen = longest_run('\x7E', login, kStatementRoom);
    };
    EXPECT_EQ(ensure_session(session), code == 1);
    const int left = longest_run('\x7E', login, kStatementRoom);
    EXPECT_EQ(seen, 255);
    // Addresses that lie there by now may have the byte, each of them once or twice.
    EXPECT_LT(left, 8);
    disconnect(session);
  }
}

TEST_F(EngineSession, LeavesNoLoginStatementOnTheStack) {
  const std::string password = "correct-horse-battery-staple-" + std::string(60, '~');
  password_variable.set(password);
  for (const std::int64_t code : {1, 0}) {
    bool was_there = false;
    library.answer("login reader," + password + ";", {.code = code, .status = "refused"});
    library.on_exec = [&](const char* statement) {
      if (std::string_view(statement).find(password) != std::string_view::npos)
        was_there = is_on_stack(statement);
    };
    bool opened = false;
    clear_stack();
    run_deeper([&] { opened = ensure_session(session); });
    EXPECT_EQ(opened, code == 1);
    EXPECT_TRUE(was_there);
    EXPECT_FALSE(stack_holds(password.substr(0, 12)));
    EXPECT_FALSE(stack_holds(std::string(12, '~')));
    disconnect(session);
  }
}

}  // namespace
}  // namespace kova::testing
