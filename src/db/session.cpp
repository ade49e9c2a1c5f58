#include "db/session.h"

#include <string_view>

#include "base/decimal.h"
#include "base/secret.h"
#include "base/text.h"
#include "platform/environment.h"
#include "platform/socket.h"

namespace kova {

namespace {

constexpr std::size_t kServerLimit = 253;
constexpr std::size_t kPortLimit = 5;
constexpr std::uint64_t kLargestPort = 65535;
constexpr std::size_t kNameLimit = 63;
constexpr std::size_t kPasswordLimit = 255;
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

bool fits(std::string_view text, std::size_t limit, std::string_view forbidden) {
  return !text.empty() && text.size() <= limit && text.find_first_of(forbidden) == text.npos;
}

/// What a resolver would make of a text that is no number is not the operator's choice.
bool is_port(std::string_view text) {
  const std::uint64_t number = whole_decimal(text).value_or(0);
  return text.size() <= kPortLimit && number >= 1 && number <= kLargestPort;
}

bool is_acceptable(const Profile& profile) {
  return fits(profile.server.view(), kServerLimit, {}) && is_port(profile.port.view()) &&
         fits(profile.user.view(), kNameLimit, ",;") &&
         fits(profile.password.view(), kPasswordLimit, ";") &&
         fits(profile.database_name(), kNameLimit, ";");
}

/// Whether some address of the engine takes a connection; the library itself may wait for ever.
bool is_reachable(const Profile& profile, std::uint32_t timeout_ms) {
  const SocketLayer layer;
  AddressList addresses;
  if (!layer.ready() || !addresses.resolve(profile.server.c_str(), profile.port.c_str())) {
    return false;
  }
  for (const void* address = addresses.first(); address != nullptr;
       address = AddressList::next(address)) {
    Socket socket;
    if (socket.connect(address, timeout_ms)) return true;
  }
  return false;
}

/// A failure leaves what was made so far in place, until the session is disconnected.
bool start_library(DbSession& session, const Profile& profile) {
  session.library = session.load_library();
  if (session.library == nullptr) return false;
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

}  // namespace

bool ensure_session(DbSession& session) {
  if (session.closed_guard.load() != 0) return false;
  if (session.statement_object != nullptr) return true;
  if (session.attempted) return false;
  session.attempted = true;
  const Profile profile;
  if (!is_acceptable(profile) || !is_reachable(profile, session.probe_timeout_ms) ||
      !start_library(session, profile)) {
    return false;
  }
  if (select_database(session, profile) && log_in(session, profile)) return true;
  disconnect(session);
  return false;
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
