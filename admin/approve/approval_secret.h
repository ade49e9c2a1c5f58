// The approval secret while a command signs.
#pragma once

#include <string>

namespace kova::admin {

/// Makes the secret of a file, or with an empty path that of the deployment, the one that the
/// server's own code signs with. Throws Refusal for a file that others than its owner and its
/// group may read, or that cannot be a secret. At destruction the secret is gone from the
/// environment of this process.
class ApprovalSecret {
 public:
  explicit ApprovalSecret(const std::string& file);
  ~ApprovalSecret();
  ApprovalSecret(const ApprovalSecret&) = delete;
  ApprovalSecret& operator=(const ApprovalSecret&) = delete;
};

}  // namespace kova::admin
