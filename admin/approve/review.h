// What an operator is to decide about, as the server's own code sees it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "admin/approve/warnings.h"
#include "policy/policy.h"
#include "policy/write_classifier.h"

namespace kova::admin {

/// One write under one policy.
struct Review {
  std::unique_ptr<McpPolicy> policy;
  std::string policy_file;
  std::string policy_digest;  ///< SHA-256 of the file, in hexadecimal
  std::string spelling;       ///< the statement as the client wrote it
  std::unique_ptr<ClassifiedWrite> write;
  std::vector<Warning> warnings;
};

/// Reads the deployment's policy and judges the statement. Throws Refusal with the server's own
/// message when the policy or the statement is refused.
[[nodiscard]] Review review_statement(std::string statement);

/// The review as one line of JSON for machines.
void print_review_json(const Review& review);

}  // namespace kova::admin
