// The process of a service (Windows alone).
#pragma once

namespace kova {

enum class EventKind { kInformation, kError };

/// Writes one event of the application log; its source is the service's name.
void log_event(const char* source, EventKind kind, const char* text);

/// What a service runs.
struct ServiceProgram {
  const char* name;  ///< of the service
  const char* path;
  const char* arguments[2];
  const char* started;  ///< the events' texts
  const char* stopped;
  const char* not_started;
  const char* ended;  ///< by itself, which is a failure
};

/// Runs the program with this process's environment until the service manager wants it to stop;
/// then the program and every process that it has started are ended. Called by the process that the
/// service manager has started, once; false, and nothing has happened, in any other.
[[nodiscard]] bool run_service(const ServiceProgram& program);

}  // namespace kova
