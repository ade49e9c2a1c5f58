// Files of the source tree that kova-admin holds for bundles. Generated at build time.
#pragma once

#include <string_view>

namespace kova::admin {

/// The bytes of manifest.json, which the bundle of a release is made from too.
extern const std::string_view kManifestTemplate;

/// The bytes of THIRD-PARTY-NOTICES, which go with every copy of the server.
extern const std::string_view kNotices;

}  // namespace kova::admin
