#include "admin/approvals/list.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/approvals/approval_states.h"
#include "admin/common/deployment.h"
#include "admin/common/json_output.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"

namespace kova::admin {

namespace {

struct ListOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<std::string> journal;
  bool json = false;
};

using Member = std::optional<std::string>;

void print_json_list(const std::vector<Approval>& approvals) {
  Json list = Json::array();
  for (const Approval& approval : approvals) {
    list.push_back({{"state", approval.state},
                    {"nonce", text_or_null(approval.nonce)},
                    {"digest", text_or_null(approval.digest)},
                    {"table", text_or_null(approval.table)},
                    {"type", text_or_null(approval.type)},
                    {"operator", text_or_null(approval.person)},
                    {"decided_at", text_or_null(approval.decided_at)},
                    {"expires_at", text_or_null(approval.expires_at)},
                    {"used_at", text_or_null(approval.used_at)}});
  }
  print_json({{"approvals", list}});
}

std::string named(std::string_view name, const Member& text) {
  return text ? fmt::format("  {} {}", name, printable(*text)) : std::string();
}

std::string list_line(const Approval& approval, bool colour) {
  const bool alarm = approval.state == kUnjournaled;
  const std::string_view on = alarm && colour ? colour_code(Colour::kRed) : "";
  const std::string_view off = on.empty() ? "" : colour_code(Colour::kNone);
  return fmt::format("{}{:<11}{}{}{}{}{}{}{}{}{}{}\n", on, approval.state, off,
                     alarm ? "  ALARM: a token was used that the journal does not know" : "",
                     named("decided", approval.decided_at), named("by", approval.person),
                     named("type", approval.type), named("table", approval.table),
                     named("used", approval.used_at), named("expires", approval.expires_at),
                     named("nonce", approval.nonce), named("digest", approval.digest));
}

void print_list(const std::vector<Approval>& approvals) {
  std::string text;
  for (const Approval& approval : approvals) text += list_line(approval, stdout_has_colour());
  print(text.empty() ? "no approvals\n" : text);
}

int run(const ListOptions& options) {
  const DeploymentInUse in_use(*options.env);
  const auto policy = load_policy();
  const auto decisions = read_journal(journal_path(*options.journal));
  const auto markers = read_markers(policy->approval_state_directory);
  const auto uses = read_audit_uses(deployment_value("KOVA_MCP_AUDIT"));
  const auto approvals = join_approvals(policy->name, decisions, markers, uses, now_ms());
  if (options.json) {
    print_json_list(approvals);
  } else {
    print_list(approvals);
  }
  const bool alarm = std::any_of(approvals.begin(), approvals.end(), [](const Approval& approval) {
    return approval.state == kUnjournaled;
  });
  return alarm ? kExitFound : kExitFine;
}

}  // namespace

RunCommand add_approvals_list(CommandParser& parser) {
  const auto options = std::make_shared<ListOptions>();
  options->env = add_env_option(parser);
  options->journal = add_journal_option(parser);
  parser.add_flag("--json", options->json, "One JSON object");
  parser.footer(
      "Joins the journal, the replay markers and the audit log of one deployment. Exit codes:\n"
      "0 fine, 1 a token was used that the journal does not know, 2 cannot tell.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
