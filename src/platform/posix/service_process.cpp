#include "platform/service_process.h"

namespace kova {

void log_event(const char*, EventKind, const char*) {}

bool run_service(const ServiceProgram&) {
  return false;
}

}  // namespace kova
