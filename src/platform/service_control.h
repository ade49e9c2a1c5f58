// Services of the system's service manager, as an administrator sees them (Windows alone).
#pragma once

#include <cstdint>

#include "base/text.h"

namespace kova {

/// Whether the system has such services; without them every function here fails.
extern const bool kHasServices;

enum class ServiceOutcome {
  kDone,
  kDenied,         ///< this account is no administrator, or is not running as one
  kExists,         ///< there is a service of that name
  kMissing,        ///< there is none
  kRunning,        ///< it runs already, or still
  kNotRunning,     ///< it does not run
  kRefused,        ///< its process did not take up its work
  kTimedOut,       ///< it is still on its way
  kMarkedDeleted,  ///< it is gone once every program that looks at it has ended
  kFailed,
};

struct ServiceResult {
  ServiceOutcome outcome;
  std::uint32_t error = 0;  ///< the system's number of what kFailed stands for; 0 without one
};

struct ServiceDefinition {
  const char* name;
  const char* title;
  const char* description;
  const char* command_line;
  /// Waits before the first three restarts of a process that has failed; the last one also holds
  /// for all further ones.
  std::uint32_t restart_ms[3];
};

/// Installs a service that starts with the system, under the account "NT SERVICE\<name>", and makes
/// its name a source of the event log. After a failure nothing is left of it.
[[nodiscard]] ServiceResult install_service(const ServiceDefinition& definition);

/// Starts it and waits until it runs.
[[nodiscard]] ServiceResult start_service(const char* name, std::uint32_t timeout_ms);

/// Stops it and waits until it has stopped.
[[nodiscard]] ServiceResult stop_service(const char* name, std::uint32_t timeout_ms);

/// Removes a service that does not run, and its name from the event log.
[[nodiscard]] ServiceResult remove_service(const char* name);

/// Writes the identifier of a service's account: S-1-5-80 and the SHA-1 of the name in capitals, as
/// `sc showsid` prints it, whether or not the service is there.
[[nodiscard]] bool service_identifier(const char* name, TextOut out);

/// Lets the service's account read the file, administrators and the system do everything, and
/// nobody else anything; nothing is inherited.
[[nodiscard]] bool give_file_to_service(const char* path, const char* name);

}  // namespace kova
