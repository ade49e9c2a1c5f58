// The session: its profile, the order of its steps, what a failure leaves behind.
#include "db/session.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <string>

#include "unit/db/session_fixture.h"

namespace kova::testing {
namespace {

const char* const kAllVariables[] = {"KOVA_MCP_SERVER", "KOVA_MCP_PORT", "KOVA_MCP_DATABASE",
                                     "KOVA_MCP_USER", "KOVA_MCP_PASSWORD"};

class SessionTest : public EngineSession {
 protected:
  /// The calls of a session that comes to be.
  Calls opening(const std::string& database = "SHOP", const std::string& user = "reader",
                const std::string& password = "pa,ss word") const {
    return {"load",
            "create",
            "disable_message",
            "start 0 127.0.0.1 " + listener.port(),
            "new_object",
            "exec use " + database + ";",
            "exec login " + user + "," + password + ";"};
  }
  /// The profile is refused: no network, no library, and no second try.
  void expect_refused_profile() {
    EXPECT_FALSE(ensure_session(session));
    EXPECT_TRUE(session.attempted);
    EXPECT_FALSE(listener.had_connection());
    EXPECT_EQ(library.calls(), Calls{});
    disconnect(session);
    EXPECT_EQ(library.calls(), Calls{});
  }
  /// The session is latched: a further try makes no call.
  void expect_latched() {
    const Calls before = library.calls();
    EXPECT_TRUE(session.attempted);
    EXPECT_EQ(session.statement_object, nullptr);
    EXPECT_FALSE(ensure_session(session));
    EXPECT_EQ(library.calls(), before);
  }
  void expect_idle() {
    EXPECT_EQ(session.instance, nullptr);
    EXPECT_EQ(session.connection, nullptr);
    EXPECT_EQ(session.statement_object, nullptr);
    EXPECT_FALSE(session.attempted);
    EXPECT_EQ(session.closed_guard.load(), 0U);
  }
  void expect_opens() {
    library.forget_calls();
    EXPECT_TRUE(ensure_session(session));
    EXPECT_EQ(library.calls(), opening());
  }
};

TEST_F(SessionTest, IsOpenedInOrder) {
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(session.failed_step, LoginStep::kNone);
  EXPECT_EQ(library.calls(), opening());
  EXPECT_TRUE(listener.had_connection());
  EXPECT_NE(session.instance, nullptr);
  EXPECT_NE(session.connection, nullptr);
  EXPECT_NE(session.statement_object, nullptr);
  EXPECT_TRUE(session.attempted);
}

TEST_F(SessionTest, TheProbesConnectionIsClosedBeforeTheLibraryIsTouched) {
  bool closed = false;
  library.on_load = [&] { closed = listener.had_closed_connection(); };
  EXPECT_TRUE(ensure_session(session));
  EXPECT_TRUE(closed);
}

TEST_F(SessionTest, IsOpenedOnce) {
  EXPECT_TRUE(ensure_session(session));
  library.forget_calls();
  for (const char* variable : kAllVariables) {
    const ScopedEnvironment gone(variable);
    EXPECT_TRUE(ensure_session(session)) << variable;
  }
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(SessionTest, TheDatabaseHasADefault) {
  database_variable.unset();
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls(), opening("default"));
  disconnect(session);
  library.forget_calls();
  database_variable.set("");
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls(), opening("default"));
}

TEST_F(SessionTest, TheProfileMustBeComplete) {
  for (ScopedEnvironment* variable :
       {&server_variable, &port_variable, &user_variable, &password_variable}) {
    variable->unset();
    expect_refused_profile();
    variable->set("");
    expect_refused_profile();
    server_variable.set("127.0.0.1");
    port_variable.set(listener.port());
    user_variable.set("reader");
    password_variable.set("pa,ss word");
  }
  expect_opens();
}

TEST_F(SessionTest, AServerHasAtMost253Characters) {
  // An address in which leading zeros make up the length.
  const auto address = [](std::size_t length) {
    const std::string start = "127.0.0.";
    return start + std::string(length - start.size() - 1, '0') + "1";
  };
  server_variable.set(address(254));
  expect_refused_profile();
  server_variable.set(address(253));
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls()[3], "start 0 " + address(253) + " " + listener.port());
}

TEST_F(SessionTest, APortHasAtMost5Characters) {
  const std::string five = std::string(5 - listener.port().size(), '0') + listener.port();
  port_variable.set("0" + five);
  expect_refused_profile();
  port_variable.set(five);
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls()[3], "start 0 127.0.0.1 " + five);
}

// What a text means as a port is the resolver's to say.
TEST_F(SessionTest, APortThatTheResolverDoesNotKnow) {
  for (const char* port : {"?", "80.x", "\xC3\xA9"}) {
    SCOPED_TRACE(port);
    port_variable.set(port);
    expect_refused_profile();
    EXPECT_EQ(session.failed_step, LoginStep::kResolve);
  }
}

TEST_F(SessionTest, TheSettingThatIsOutOfItsLimitsIsNamed) {
  const struct {
    ScopedEnvironment& variable;
    LoginSetting setting;
  } rows[] = {{server_variable, LoginSetting::kServer},
              {port_variable, LoginSetting::kPort},
              {user_variable, LoginSetting::kUser},
              {password_variable, LoginSetting::kPassword},
              {database_variable, LoginSetting::kDatabase}};
  // In the order of the checks: the first one is named, though later ones are as wrong.
  for (auto row = std::rbegin(rows); row != std::rend(rows); ++row) {
    row->variable.set(std::string(300, ';'));
    EXPECT_FALSE(ensure_session(session));
    EXPECT_EQ(session.failed_step, LoginStep::kSettings);
    EXPECT_EQ(session.failed_setting, row->setting);
    disconnect(session);
  }
}

TEST_F(SessionTest, ADatabaseHasAtMost63Characters) {
  database_variable.set(std::string(64, 'd'));
  expect_refused_profile();
  database_variable.set(std::string(63, 'd'));
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls(), opening(std::string(63, 'd')));
}

TEST_F(SessionTest, AUserHasAtMost63Characters) {
  user_variable.set(std::string(64, 'u'));
  expect_refused_profile();
  user_variable.set(std::string(63, 'u'));
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls(), opening("SHOP", std::string(63, 'u')));
}

TEST_F(SessionTest, APasswordHasAtMost255Characters) {
  password_variable.set(std::string(256, 'p'));
  expect_refused_profile();
  user_variable.set(std::string(63, 'u'));
  password_variable.set(std::string(255, 'p'));
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls(), opening("SHOP", std::string(63, 'u'), std::string(255, 'p')));
}

TEST_F(SessionTest, SeparatorsOfTheDialectAreRefused) {
  for (const char* user : {"a,b", "a;b", ",", ";", "reader;", ",reader"}) {
    user_variable.set(user);
    expect_refused_profile();
  }
  user_variable.set("reader");
  for (const char* password : {";", "a;b", "secret;"}) {
    password_variable.set(password);
    expect_refused_profile();
  }
  password_variable.set("pa,ss word");
  for (const char* database : {";", "SHOP;", "a;b"}) {
    database_variable.set(database);
    expect_refused_profile();
  }
}

TEST_F(SessionTest, OtherBytesAreTheEnginesBusiness) {
  database_variable.set("a,b c");
  user_variable.set("o'brien \xC3\xA9 %s");
  password_variable.set("%n,,'\"--%s");
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls(), opening("a,b c", "o'brien \xC3\xA9 %s", "%n,,'\"--%s"));
}

TEST_F(SessionTest, AnEngineThatRefusesConnectionsIsNotAsked) {
  const RefusedPort refused;
  port_variable.set(refused.port());
  EXPECT_FALSE(ensure_session(session));
  EXPECT_EQ(session.failed_step, LoginStep::kConnect);
  EXPECT_EQ(library.calls(), Calls{});
  port_variable.set(listener.port());
  expect_latched();
  disconnect(session);
  expect_opens();
}

TEST_F(SessionTest, AnAddressThatDoesNotResolveIsNotAsked) {
  // A name with an empty label, of which no resolver asks a server.
  server_variable.set("a..b");
  EXPECT_FALSE(ensure_session(session));
  EXPECT_EQ(session.failed_step, LoginStep::kResolve);
  EXPECT_EQ(library.calls(), Calls{});
  server_variable.set("127.0.0.1");
  expect_latched();
  disconnect(session);
  expect_opens();
}

// The name may mean an IPv6 address too, on which nobody listens.
TEST_F(SessionTest, EveryAddressOfANameIsTried) {
  server_variable.set("localhost");
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls()[3], "start 0 localhost " + listener.port());
  EXPECT_TRUE(listener.had_connection());
}

TEST_F(SessionTest, ARefusedProfileLatchesUntilDisconnect) {
  user_variable.set("a;b");
  EXPECT_FALSE(ensure_session(session));
  user_variable.set("reader");
  expect_latched();
  disconnect(session);
  expect_idle();
  expect_opens();
}

TEST_F(SessionTest, AMissingLibraryLatchesUntilDisconnect) {
  library.missing = true;
  EXPECT_FALSE(ensure_session(session));
  EXPECT_EQ(session.failed_step, LoginStep::kLoad);
  EXPECT_EQ(library.calls(), (Calls{"load"}));
  EXPECT_TRUE(listener.had_connection());
  library.missing = false;
  expect_latched();
  disconnect(session);
  EXPECT_EQ(library.calls(), (Calls{"load"}));
  expect_idle();
  expect_opens();
}

TEST_F(SessionTest, AFailedCreationLatchesUntilDisconnect) {
  library.create_fails = true;
  EXPECT_FALSE(ensure_session(session));
  EXPECT_EQ(session.failed_step, LoginStep::kStart);
  EXPECT_EQ(library.calls(), (Calls{"load", "create"}));
  library.create_fails = false;
  expect_latched();
  disconnect(session);
  EXPECT_EQ(library.count("stop") + library.count("free_object"), 0);
  expect_idle();
  expect_opens();
}

TEST_F(SessionTest, AFailedStartLatchesAndReleasesNothing) {
  library.start_fails = true;
  EXPECT_FALSE(ensure_session(session));
  EXPECT_EQ(session.failed_step, LoginStep::kStart);
  EXPECT_EQ(library.calls(),
            (Calls{"load", "create", "disable_message", "start 0 127.0.0.1 " + listener.port()}));
  EXPECT_NE(session.instance, nullptr);
  library.start_fails = false;
  expect_latched();
  disconnect(session);
  EXPECT_EQ(library.count("stop") + library.count("free_object"), 0);
  expect_idle();
  expect_opens();
}

TEST_F(SessionTest, AFailedObjectLatchesAndIsStoppedAtDisconnect) {
  library.new_object_fails = true;
  EXPECT_FALSE(ensure_session(session));
  EXPECT_EQ(session.failed_step, LoginStep::kStart);
  EXPECT_EQ(library.calls().back(), "new_object");
  EXPECT_NE(session.connection, nullptr);
  library.new_object_fails = false;
  expect_latched();
  library.forget_calls();
  disconnect(session);
  EXPECT_EQ(library.calls(), (Calls{"stop"}));
  expect_idle();
  expect_opens();
}

TEST_F(SessionTest, AFailedUseReleasesAtOnceAndRetries) {
  for (const std::int64_t code : {std::int64_t{0}, std::int64_t{-1}, INT64_MIN}) {
    library.answer("use SHOP;", {.code = code});
    library.forget_calls();
    EXPECT_FALSE(ensure_session(session));
    EXPECT_EQ(session.failed_step, LoginStep::kUse);
    EXPECT_EQ(library.calls(),
              (Calls{"load", "create", "disable_message", "start 0 127.0.0.1 " + listener.port(),
                     "new_object", "exec use SHOP;", "free_object", "stop"}));
    expect_idle();
  }
  library.answer("use SHOP;", {});
  expect_opens();
}

TEST_F(SessionTest, AFailedLoginReleasesAtOnceAndRetries) {
  const std::string login = "login reader,pa,ss word;";
  for (const std::int64_t code : {std::int64_t{0}, std::int64_t{-1}, -4294967296}) {
    library.answer(login, {.code = code});
    library.forget_calls();
    EXPECT_FALSE(ensure_session(session));
    EXPECT_EQ(session.failed_step, LoginStep::kLogin);
    Calls calls = opening();
    calls.insert(calls.end(), {"free_object", "stop"});
    EXPECT_EQ(library.calls(), calls);
    expect_idle();
  }
  library.forget_calls();
  disconnect(session);
  EXPECT_EQ(library.calls(), Calls{});
  library.answer(login, {});
  expect_opens();
}

// All 64 bits of a result count.
TEST_F(SessionTest, ResultsAreWide) {
  library.other.code = 4294967296;
  EXPECT_TRUE(ensure_session(session));
}

TEST_F(SessionTest, DisconnectReleasesOnce) {
  EXPECT_TRUE(ensure_session(session));
  library.forget_calls();
  disconnect(session);
  EXPECT_EQ(library.calls(), (Calls{"free_object", "stop"}));
  expect_idle();
  disconnect(session);
  EXPECT_EQ(library.calls(), (Calls{"free_object", "stop"}));
  expect_opens();
}

TEST_F(SessionTest, DisconnectOfAnIdleSessionDoesNothing) {
  disconnect(session);
  EXPECT_EQ(library.calls(), Calls{});
  expect_idle();
  expect_opens();
}

TEST_F(SessionTest, TheProfileIsReadAtEachAttempt) {
  EXPECT_TRUE(ensure_session(session));
  disconnect(session);
  database_variable.set("OTHER");
  user_variable.set("writer");
  password_variable.set("x");
  library.forget_calls();
  EXPECT_TRUE(ensure_session(session));
  EXPECT_EQ(library.calls(), opening("OTHER", "writer", "x"));
}

TEST_F(SessionTest, TheClosedGuardRefusesEverySession) {
  session.closed_guard = 1;
  EXPECT_FALSE(ensure_session(session));
  EXPECT_FALSE(session.attempted);
  EXPECT_EQ(library.calls(), Calls{});
  disconnect(session);
  expect_idle();
  EXPECT_TRUE(ensure_session(session));
  session.closed_guard = 1;
  EXPECT_FALSE(ensure_session(session));
  disconnect(session);
  expect_idle();
}

TEST_F(SessionTest, AFailedLoginLowersTheClosedGuard) {
  library.answer("login reader,pa,ss word;", {.code = 0});
  library.on_exec = [this](const char*) { session.closed_guard = 1; };
  EXPECT_FALSE(ensure_session(session));
  expect_idle();
}

}  // namespace
}  // namespace kova::testing
