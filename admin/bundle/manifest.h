// The manifest of a client bundle, which tells a client what to ask and how to start the server.
#pragma once

#include <string>
#include <vector>

#include "admin/bundle/program_file.h"
#include "admin/bundle/site.h"

namespace kova::admin {

/// The names of a bundle's files.
inline constexpr char kBundleManifest[] = "manifest.json";
inline constexpr char kBundlePolicy[] = "policy.json";
inline constexpr char kBundleNotices[] = "THIRD-PARTY-NOTICES";

/// What differs between the two systems.
struct SystemNames {
  const char* platform;  ///< what a client calls the system
  const char* server;    ///< the server's file in a bundle
  const char* library;   ///< the client library's
  const char* policy;    ///< the policy's path as the system writes it
};

[[nodiscard]] const SystemNames& names_of(System system);

/// The manifest for these systems, at least one. `audit` is the audit file's path on the user's
/// machine, empty without one.
[[nodiscard]] std::string bundle_manifest(const Site& site, const std::vector<System>& systems,
                                          const std::string& audit);

}  // namespace kova::admin
