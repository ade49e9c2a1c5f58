#include "admin/doctor/approval_check.h"

#include <fmt/format.h>

#include <set>

#include "admin/doctor/policy_check.h"
#include "admin/doctor/probe_name.h"
#include "admin/doctor/rights.h"
#include "approval/signature.h"
#include "platform/environment.h"
#include "platform/file.h"
#include "platform/file_probe.h"
#include "platform/file_system.h"

namespace kova::admin {

namespace {

constexpr std::string_view kDrawSecret = "draw a new one: 32 random bytes in hexadecimal digits";
/// A secret that was drawn at random holds at least so many different bytes: of 32 hexadecimal
/// digits fewer come up once in ten million draws.
constexpr std::size_t kDifferentBytesMinimum = 8;

// The signature itself refuses a secret that is too short.
bool can_sign(const McpPolicy& policy) {
  char signature[kSignatureCapacity];
  return approval_sign(policy, "0", "0", "0", signature);
}

void judge_probe(Findings& findings, const std::string& folder) {
  const std::string name = probe_name();
  switch (probe_exclusive_create(folder.c_str(), name.c_str())) {
    case CreateProbe::kWorks:
      findings.note("markers are created once");
      break;
    case CreateProbe::kRefused:
      findings.fail(fmt::format("no file can be created in {}", folder),
                    "let the account that runs the server create files there");
      break;
    case CreateProbe::kNotExclusive:
      findings.fail("a file can be created twice: a token could be used twice",
                    "use a local file system");
      break;
    case CreateProbe::kLeftBehind:
      findings.warn(fmt::format("the trial file {} cannot be removed", name), "remove it by hand");
      break;
  }
}

void judge_storage(Findings& findings, const std::string& folder) {
  if (!can_sync_folder(folder.c_str())) {
    findings.fail("the folder's names cannot be sent to the disk: each write is refused",
                  "use a file system that can, such as ext4");
  }
  FileSystemFacts facts;
  if (!read_file_system(folder.c_str(), facts)) return;
  findings.note(fmt::format("on {}", facts.name));
  if (facts.is_in_memory) {
    findings.warn("its markers do not outlive a restart: a token could be used once more",
                  "use a disk");
  }
  if (facts.is_remote) {
    findings.warn("the file system is on another machine",
                  "use a local disk, and one policy name for each host");
  }
}

bool judge_place(Findings& findings, const std::string& folder) {
  if (folder.empty()) {
    findings.fail("approval_state_directory is empty", "name an existing folder in the policy");
  } else if (!is_canonical_path(folder.c_str())) {
    findings.fail(fmt::format("{} is not absolute and canonical", folder),
                  "write the path in full, without . and ..");
  } else if (!is_directory(folder.c_str())) {
    findings.fail(fmt::format("{} does not exist", folder),
                  "make the folder, for the account that runs the server alone");
  } else {
    return true;
  }
  return false;
}

/// Of a policy that is not known to ask for approvals: the loader stops at its first refusal.
void judge_need(Findings& findings, const McpPolicy& policy) {
  if (policy.valid) {
    findings.note("not needed: the policy asks for no approvals");
  } else {
    findings.warn("not judged: the policy is refused", "mend the policy first");
  }
}

}  // namespace

std::string weakness_of(std::string_view secret) {
  if (std::set<char>(secret.begin(), secret.end()).size() < kDifferentBytesMinimum) {
    return "has few different characters";
  }
  if (secret.find(' ') != std::string_view::npos) return "looks like a sentence";
  return {};
}

Check check_approval_secret(const McpPolicy& policy, const std::string& environment_file) {
  Findings findings(kApprovalSecretCheck);
  const EnvironmentValue secret("KOVA_MCP_APPROVAL_SECRET");
  const bool is_set = !secret.view().empty();
  if (!is_set && !needs_approvals(policy)) {
    judge_need(findings, policy);
    return findings.finish();
  }
  if (!is_set) {
    findings.fail("KOVA_MCP_APPROVAL_SECRET is not set: no token can be issued or used",
                  kDrawSecret);
    return findings.finish();
  }
  findings.note(fmt::format("{} bytes", secret.view().size()));
  if (!can_sign(policy)) {
    findings.fail("KOVA_MCP_APPROVAL_SECRET is too short: it has to have 32 bytes", kDrawSecret);
  } else if (const std::string weakness = weakness_of(secret.view()); !weakness.empty()) {
    findings.warn(fmt::format("KOVA_MCP_APPROVAL_SECRET {}", weakness), kDrawSecret);
  }
  if (environment_file.empty()) {
    findings.note("it stands in this process's environment, which its account can read");
  } else {
    judge_readers(findings, "the environment file", environment_file);
  }
  return findings.finish();
}

Check check_approval_directory(const McpPolicy& policy) {
  Findings findings("approval.directory");
  if (!needs_approvals(policy)) {
    judge_need(findings, policy);
    return findings.finish();
  }
  const std::string folder(policy.approval_state_directory);
  if (!judge_place(findings, folder)) return findings.finish();
  findings.note(folder);
  judge_probe(findings, folder);
  judge_storage(findings, folder);
  judge_folder(findings, "the state directory", folder, FolderUse::kNobodyAdds);
  return findings.finish();
}

}  // namespace kova::admin
