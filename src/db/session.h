// The authenticated session with the engine: one per process, opened by the first statement.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "db/client_library.h"

namespace kova {

/// The steps of a login, in their order.
enum class LoginStep {
  kNone,
  kSettings,  ///< the five settings are within their limits
  kResolve,   ///< the host has addresses
  kConnect,   ///< one of them takes a connection
  kLoad,      ///< the client library is there with all its operations
  kStart,     ///< it connects to the engine
  kUse,       ///< the database is selected
  kLogin,     ///< user and password are accepted
};

/// The settings of a login, in the order in which they are checked.
enum class LoginSetting { kNone, kServer, kPort, kUser, kPassword, kDatabase };

/// What a setting has to be: 1 to `limit` bytes, and none of those in `forbidden`.
struct LoginRule {
  const char* variable;
  std::size_t limit;
  std::string_view forbidden;
};

/// The rule of a setting; for kNone a rule without a variable.
[[nodiscard]] const LoginRule& login_rule(LoginSetting setting);

/// The first setting of the environment that breaks its rule. An unset database is "default".
[[nodiscard]] LoginSetting first_bad_login_setting();

/// How long the engine may take to accept the connection that shows that it can be reached.
inline constexpr std::uint32_t kProbeTimeoutMs = 3000;

/// A session is idle, authenticated (the statement object is there), or latched after a failure
/// (attempted, no object) until it is disconnected. Used by one thread at a time.
struct DbSession {
  using Loader = const ClientLibrary*();

  void* instance = nullptr;
  void* connection = nullptr;
  void* statement_object = nullptr;
  bool attempted = false;
  /// The step at which the last ensure_session that made an attempt has failed.
  LoginStep failed_step = LoginStep::kNone;
  /// The setting that is to blame when that is kSettings.
  LoginSetting failed_setting = LoginSetting::kNone;
  /// Refuses every session while it is not 0. Nothing raises it; it is there for whoever must keep
  /// sessions from being made while the process ends.
  std::atomic<std::uint32_t> closed_guard{0};
  /// Whether the guard has refused a session.
  bool withheld = false;
  Loader* load_library = load_client_library;
  std::uint32_t probe_timeout_ms = kProbeTimeoutMs;
  /// Set with the instance.
  const ClientLibrary* library = nullptr;
};

/// True when the session is authenticated; if it is not, goes through the steps of a login. A
/// failure leaves `failed_step`; most failures are final until `disconnect`.
[[nodiscard]] bool ensure_session(DbSession& session);

/// Releases what the session holds and makes it idle. May be called at any time.
void disconnect(DbSession& session);

}  // namespace kova
