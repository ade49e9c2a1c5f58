#include "platform/service_control.h"

namespace kova {

// The system's services are units, which its own tools install and start.
const bool kHasServices = false;

ServiceResult install_service(const ServiceDefinition&) {
  return {ServiceOutcome::kFailed};
}

ServiceResult start_service(const char*, std::uint32_t) {
  return {ServiceOutcome::kFailed};
}

ServiceResult stop_service(const char*, std::uint32_t) {
  return {ServiceOutcome::kFailed};
}

ServiceResult remove_service(const char*) {
  return {ServiceOutcome::kFailed};
}

bool service_identifier(const char*, TextOut) {
  return false;
}

bool give_file_to_service(const char*, const char*) {
  return false;
}

}  // namespace kova
