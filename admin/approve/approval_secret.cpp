#include "admin/approve/approval_secret.h"

#include "admin/common/file_text.h"
#include "admin/common/refusal.h"
#include "platform/environment_change.h"
#include "platform/file_rights.h"

namespace kova::admin {

namespace {

constexpr std::size_t kSecretFileLimit = 65536;
constexpr char kSecretVariable[] = "KOVA_MCP_APPROVAL_SECRET";

/// The file's bytes without one line end.
SecretText read_secret(const std::string& file) {
  SecretText secret = read_file(file, kSecretFileLimit);
  cut_line_end(secret);
  if (secret.view().empty()) throw Refusal(file + ": the secret file is empty");
  if (secret.view().find('\0') != std::string_view::npos) {
    throw Refusal(file + ": the secret holds a NUL byte");
  }
  return secret;
}

void check_access(const std::string& file) {
  FileRights rights;
  if (!read_file_rights(file.c_str(), rights)) {
    throw Refusal(file + ": the secret file cannot be read");
  }
  if (rights.others_read || rights.others_write) {
    throw Refusal(file + ": others than the owner and the group may use the secret file");
  }
}

}  // namespace

ApprovalSecret::ApprovalSecret(const std::string& file) {
  if (file.empty()) return;
  check_access(file);
  const SecretText secret = read_secret(file);
  clear_environment_variable(kSecretVariable);
  if (!set_environment_variable(kSecretVariable, secret.c_str())) {
    throw Refusal(file + ": the secret cannot be used");
  }
}

ApprovalSecret::~ApprovalSecret() {
  clear_environment_variable(kSecretVariable);
}

}  // namespace kova::admin
