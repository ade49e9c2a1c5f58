#include "admin/approve/review.h"

#include <utility>

#include "admin/approve/statement_rows.h"
#include "admin/common/deployment.h"
#include "admin/common/file_text.h"
#include "admin/common/json_output.h"
#include "admin/common/refusal.h"
#include "base/hex.h"
#include "platform/crypto.h"
#include "policy/policy_file.h"

namespace kova::admin {

namespace {

constexpr std::size_t kMessageCapacity = 256;

std::string digest_of_file(const std::string& path) {
  const SecretText text = read_file(path, kPolicyFileLimit);
  std::uint8_t digest[kSha256Size];
  char shown[kDigestTextCapacity];
  if (!sha256_digest(text.view(), digest)) throw Refusal(path + ": the digest failed");
  write_hex(digest, shown);
  return shown;
}

std::unique_ptr<ClassifiedWrite> classify(const McpPolicy& policy, const std::string& statement) {
  auto write = std::make_unique<ClassifiedWrite>();
  char message[kMessageCapacity] = {};
  if (write_classify(policy, statement, *write, message)) return write;
  // The server's reply has no message where a literal fills the canonical text.
  throw Refusal(message[0] != '\0' ? message : "the server refuses the statement: it is too large");
}

}  // namespace

Review review_statement(std::string statement) {
  Review review;
  review.policy = load_policy();
  review.spelling = std::move(statement);
  review.write = classify(*review.policy, review.spelling);
  review.policy_file = deployment_value("KOVA_MCP_POLICY");
  review.policy_digest = digest_of_file(review.policy_file);
  review.warnings = find_warnings(*review.write);
  return review;
}

void print_review_json(const Review& review) {
  Json warnings = Json::array();
  for (const Warning& warning : review.warnings) {
    const Place place = place_of(review.write->canonical, warning.index);
    warnings.push_back({{"name", warning.name}, {"line", place.line}, {"column", place.column}});
  }
  print_json({{"type", review.write->type},
              {"table", review.write->table},
              {"canonical", review.write->canonical},
              {"digest", review.write->digest},
              {"warnings", warnings}});
}

}  // namespace kova::admin
