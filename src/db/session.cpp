#include "db/session.h"

#include "base/secret.h"
#include "base/text.h"
#include "platform/environment.h"
#include "platform/socket.h"

namespace kova {

namespace {

/// In the order of LoginSetting.
constexpr LoginRule kRules[] = {
    {.variable = "", .limit = 0, .forbidden = {}},
    {.variable = "KOVA_MCP_SERVER", .limit = 253, .forbidden = {}},
    {.variable = "KOVA_MCP_PORT", .limit = 5, .forbidden = {}},
    {.variable = "KOVA_MCP_USER", .limit = 63, .forbidden = ",;"},
    {.variable = "KOVA_MCP_PASSWORD", .limit = 255, .forbidden = ";"},
    {.variable = "KOVA_MCP_DATABASE", .limit = 63, .forbidden = ";"},
};

constexpr std::size_t kUseCapacity = 160;
constexpr std::size_t kLoginCapacity = 512;
constexpr int kStartOptions = 0;

/// What the environment says of the engine and the login; wiped when it goes.
struct Profile {
  EnvironmentValue server{"KOVA_MCP_SERVER"};
  EnvironmentValue port{"KOVA_MCP_PORT"};
  EnvironmentValue database{"KOVA_MCP_DATABASE"};
  EnvironmentValue user{"KOVA_MCP_USER"};
  EnvironmentValue password{"KOVA_MCP_PASSWORD"};

  [[nodiscard]] const char* database_name() const {
    return database.view().empty() ? "default" : database.c_str();
  }
};

bool fits(std::string_view text, LoginSetting setting) {
  const LoginRule& rule = login_rule(setting);
  return !text.empty() && text.size() <= rule.limit &&
         text.find_first_of(rule.forbidden) == text.npos;
}

/// The first setting that is out of its limits.
LoginSetting first_bad_setting(const Profile& profile) {
  if (!fits(profile.server.view(), LoginSetting::kServer)) return LoginSetting::kServer;
  if (!fits(profile.port.view(), LoginSetting::kPort)) return LoginSetting::kPort;
  if (!fits(profile.user.view(), LoginSetting::kUser)) return LoginSetting::kUser;
  if (!fits(profile.password.view(), LoginSetting::kPassword)) return LoginSetting::kPassword;
  if (!fits(profile.database_name(), LoginSetting::kDatabase)) return LoginSetting::kDatabase;
  return LoginSetting::kNone;
}

/// Whether some address accepts a connection. Tried before the library connects, because its own
/// connect has no time limit.
bool can_connect(const AddressList& addresses, std::uint32_t timeout_ms) {
  for (const void* address = addresses.first(); address != nullptr;
       address = AddressList::next(address)) {
    Socket socket;
    if (socket.connect(address, timeout_ms)) return true;
  }
  return false;
}

/// Resolves the host and tries its addresses; returns the step that failed, or kNone.
LoginStep reach(const Profile& profile, std::uint32_t timeout_ms) {
  const SocketLayer layer;
  AddressList addresses;
  if (!layer.ready() || !addresses.resolve(profile.server.c_str(), profile.port.c_str())) {
    return LoginStep::kResolve;
  }
  return can_connect(addresses, timeout_ms) ? LoginStep::kNone : LoginStep::kConnect;
}

/// A failure leaves what was made so far in place, until the session is disconnected.
bool start_library(DbSession& session, const Profile& profile) {
  const ClientLibrary& library = *session.library;
  session.instance = library.create_instance();
  if (session.instance == nullptr) return false;
  library.disable_message(session.instance);
  session.connection =
      library.start(session.instance, kStartOptions, profile.server.c_str(), profile.port.c_str());
  if (session.connection == nullptr) return false;
  session.statement_object = library.new_object(session.connection);
  return session.statement_object != nullptr;
}

bool select_database(const DbSession& session, const Profile& profile) {
  char statement[kUseCapacity];
  TextOut out(statement);
  return out.format("use %s;", profile.database_name()) &&
         session.library->exec(session.statement_object, statement) > 0;
}

bool log_in(const DbSession& session, const Profile& profile) {
  char statement[kLoginCapacity];
  const WipeGuard guard(statement);
  TextOut out(statement);
  return out.format("login %s,%s;", profile.user.c_str(), profile.password.c_str()) &&
         session.library->exec(session.statement_object, statement) > 0;
}

/// Goes through the steps; the one that fails is returned, kNone for a session that is there.
LoginStep attempt(DbSession& session) {
  const Profile profile;
  session.failed_setting = first_bad_setting(profile);
  if (session.failed_setting != LoginSetting::kNone) return LoginStep::kSettings;
  const LoginStep unreached = reach(profile, session.probe_timeout_ms);
  if (unreached != LoginStep::kNone) return unreached;
  session.library = session.load_library();
  if (session.library == nullptr) return LoginStep::kLoad;
  if (!start_library(session, profile)) return LoginStep::kStart;
  if (!select_database(session, profile)) return LoginStep::kUse;
  return log_in(session, profile) ? LoginStep::kNone : LoginStep::kLogin;
}

}  // namespace

const LoginRule& login_rule(LoginSetting setting) {
  return kRules[static_cast<std::size_t>(setting)];
}

LoginSetting first_bad_login_setting() {
  return first_bad_setting(Profile());
}

bool ensure_session(DbSession& session) {
  if (session.closed_guard.load() != 0) {
    session.withheld = true;
    return false;
  }
  if (session.statement_object != nullptr) return true;
  if (session.attempted) return false;
  session.attempted = true;
  session.failed_step = attempt(session);
  // After a refusal by the engine a later call tries again; every other failure is final.
  if (session.failed_step == LoginStep::kUse || session.failed_step == LoginStep::kLogin) {
    disconnect(session);
  }
  return session.failed_step == LoginStep::kNone;
}

void disconnect(DbSession& session) {
  if (session.statement_object != nullptr) session.library->free_object(session.statement_object);
  if (session.connection != nullptr) session.library->stop(session.connection);
  session.statement_object = nullptr;
  session.connection = nullptr;
  session.instance = nullptr;
  session.attempted = false;
  session.closed_guard.exchange(0);
}

}  // namespace kova
