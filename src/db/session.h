// The authenticated session with the engine: one per process, opened by the first statement.
#pragma once

#include <atomic>
#include <cstdint>

#include "db/client_library.h"

namespace kova {

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
  /// Refuses every session while it is not 0. Nothing raises it yet.
  std::atomic<std::uint32_t> closed_guard{0};
  Loader* load_library = load_client_library;
  std::uint32_t probe_timeout_ms = kProbeTimeoutMs;
  /// Set with the instance.
  const ClientLibrary* library = nullptr;
};

/// True when the session is authenticated, which it makes it if need be: reads the profile from
/// the environment, sees that the engine can be reached, starts the client library, selects the
/// database and logs in. A failure leaves no words; most are final until `disconnect`.
[[nodiscard]] bool ensure_session(DbSession& session);

/// Releases what the session holds and makes it idle. May be called at any time.
void disconnect(DbSession& session);

}  // namespace kova
