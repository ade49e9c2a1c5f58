// The server's executable, the client library beside it, and who may change them.
#pragma once

#include <string>

#include "admin/doctor/check.h"
#include "db/client_library.h"

namespace kova::admin {

/// The files that a deployment is made of. Empty where there is none.
struct DeploymentFiles {
  std::string server;
  std::string admin;  ///< this program: clients start it, and it reads the secrets
  std::string client_library;
  std::string policy;
  std::string environment;
};

/// Starts the server, asks it who it is, and lets it end.
[[nodiscard]] Check check_server(const std::string& server);

/// Looks for the client library beside the server, then where the server looks, and finds the
/// operations in it. `found` is the file, empty when there is none.
[[nodiscard]] Check check_client_library(const std::string& server, std::string& found);

/// The library of the last `check_client_library`; null when it cannot be used. A
/// DbSession::Loader.
[[nodiscard]] const ClientLibrary* checked_client_library();

/// Who may change the files, and read the environment file.
[[nodiscard]] Check check_permissions(const DeploymentFiles& files);

}  // namespace kova::admin
