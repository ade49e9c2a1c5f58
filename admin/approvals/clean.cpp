#include "admin/approvals/clean.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>

#include "admin/common/deployment.h"
#include "admin/common/output.h"

namespace kova::admin {

namespace {

constexpr UnixMs kGraceMs = UnixMs{24} * 60 * 60 * 1000;

struct CleanOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<std::string> journal;
  bool dry_run = false;
};

int run(const CleanOptions& options) {
  const DeploymentInUse in_use(*options.env);
  const auto policy = load_policy();
  const std::string directory = policy->approval_state_directory;
  const auto decisions = read_journal(journal_path(*options.journal));
  const auto markers = read_markers(directory);
  for (const Marker& marker : removable_markers(decisions, markers, now_ms())) {
    if (!options.dry_run) remove_marker(directory, marker);
    print(marker.name + '\n');
  }
  return kExitFine;
}

}  // namespace

std::vector<Marker> removable_markers(std::span<const Decision> decisions,
                                      std::span<const Marker> markers, UnixMs now) {
  std::map<std::string, UnixMs> expiry;
  for (const Decision& decision : decisions) {
    if (!decision.nonce) continue;
    UnixMs& last = expiry[lower_case(*decision.nonce)];
    last = std::max(last, *parse_time(*decision.expires_at));
  }
  std::vector<Marker> removable;
  for (const Marker& marker : markers) {
    const auto found = expiry.find(marker.nonce);
    if (found != expiry.end() && now - found->second > kGraceMs) removable.push_back(marker);
  }
  return removable;
}

RunCommand add_approvals_clean(CommandParser& parser) {
  const auto options = std::make_shared<CleanOptions>();
  options->env = add_env_option(parser);
  options->journal = add_journal_option(parser);
  parser.add_flag("--dry-run", options->dry_run, "Print the names and remove nothing");
  parser.footer(
      "Removes the markers of tokens that expired more than 24 hours ago, and prints each name.\n"
      "A marker without a line in the journal is never touched.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
