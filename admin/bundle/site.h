// What a deployment gives to the bundle of its clients.
#pragma once

#include <string>

#include "admin/common/secret_text.h"

namespace kova::admin {

/// The settings of a deployment that its clients share. No secret is among them.
struct Site {
  SecretText policy_file;  ///< the bytes of the policy
  std::string policy;      ///< its name
  std::string client_id;
  std::string database;
  std::string user;
  std::string server;
  std::string port;
  bool providers_are_stopped = false;  ///< by the kill switch
};

/// Reads the deployment of this process's environment. Throws Refusal without a policy, for one
/// that does not load or that may write, and for a setting that no client could log in with.
[[nodiscard]] Site read_site();

}  // namespace kova::admin
