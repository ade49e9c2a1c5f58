// Nothing of the password stays on the stack of the call that logs in.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "db/session.h"
#include "unit/db/session_fixture.h"
#include "wiping/stack_residue.h"

namespace kova::testing {
namespace {

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
