#include "admin/doctor/variables_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "admin/doctor/approval_check.h"
#include "base/ascii.h"
#include "base/decimal.h"
#include "platform/environment.h"
#include "platform/environment_change.h"
#include "policy/predicates.h"

namespace kova::admin {

namespace {

constexpr std::string_view kPrefix = "KOVA_MCP_";
/// How a kill switch is most easily misspelled.
constexpr std::string_view kShortened = "KOVA_DISABLE";
constexpr const char* kToken = "KOVA_MCP_HTTP_BEARER_TOKEN";
constexpr const char* kHosts = "KOVA_MCP_HTTP_ALLOWED_HOSTS";
constexpr const char* kOrigins = "KOVA_MCP_HTTP_ALLOWED_ORIGINS";
constexpr const char* kRate = "KOVA_MCP_HTTP_RATE_PER_MINUTE";
constexpr const char* kPlaintext = "KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK";

constexpr std::string_view kKnown[] = {"KOVA_MCP_POLICY",
                                       "KOVA_MCP_CLIENT_ID",
                                       "KOVA_MCP_DATABASE",
                                       "KOVA_MCP_USER",
                                       "KOVA_MCP_PASSWORD",
                                       "KOVA_MCP_SERVER",
                                       "KOVA_MCP_PORT",
                                       kDisableProviders,
                                       kDisableWrites,
                                       "KOVA_MCP_APPROVAL_SECRET",
                                       "KOVA_MCP_AUDIT",
                                       "KOVA_MCP_DEBUG",
                                       kToken,
                                       kHosts,
                                       kOrigins,
                                       kRate,
                                       kPlaintext};

constexpr std::string_view kOnWords = "only 1, true, yes and on switch it on";
constexpr std::size_t kTokenMinimum = 32;
/// What fits behind "Bearer " in the header that the server reads.
constexpr std::size_t kTokenLimit = 1023 - 7;
constexpr std::size_t kListEntryLimit = 511;

std::vector<std::string> unknown_variables() {
  std::vector<std::string> unknown;
  visit_environment_names(
      [](void* context, std::string_view name) {
        const bool is_ours = name.starts_with(kPrefix) || name.starts_with(kShortened);
        if (!is_ours || std::ranges::find(kKnown, name) != std::end(kKnown)) return;
        static_cast<std::vector<std::string>*>(context)->emplace_back(name);
      },
      &unknown);
  std::ranges::sort(unknown);
  return unknown;
}

void judge_switch(Findings& findings, const char* variable, std::string_view what) {
  switch (spelling_of(variable)) {
    case Spelling::kOn:
      findings.note(fmt::format("{} stopped", what));
      break;
    case Spelling::kOff:
      findings.note(fmt::format("{} not stopped", what));
      break;
    case Spelling::kUnclear:
      findings.fail(fmt::format("{} is \"{}\" and stops nothing", variable,
                                EnvironmentValue(variable).view()),
                    fmt::format("set it to 1 to stop {}, or remove it", what));
      break;
  }
}

void judge_token(Findings& findings) {
  const EnvironmentValue token(kToken);
  if (token.view().empty()) {
    findings.fail(fmt::format("{} is not set: each request is refused", kToken),
                  "draw one: 32 random bytes in hexadecimal digits");
  } else if (token.view().size() < kTokenMinimum) {
    findings.fail(fmt::format("{} has {} characters, {} are needed: each request is refused",
                              kToken, token.view().size(), kTokenMinimum),
                  "draw a longer one: 32 random bytes in hexadecimal digits");
  } else if (token.view().size() > kTokenLimit) {
    findings.fail(fmt::format("{} has {} characters, at most {} can be sent", kToken,
                              token.view().size(), kTokenLimit),
                  "draw a shorter one: 32 random bytes in hexadecimal digits");
  } else if (const std::string weakness = weakness_of(token.view()); !weakness.empty()) {
    findings.warn(fmt::format("{} {}", kToken, weakness),
                  "draw a new one: 32 random bytes in hexadecimal digits");
  } else {
    findings.note(fmt::format("a token of {} characters", token.view().size()));
  }
}

std::vector<std::string> entries_of(std::string_view list) {
  std::vector<std::string> entries;
  while (!list.empty()) {
    const std::size_t end = std::min(list.find(','), list.size());
    std::string_view entry = list.substr(0, end);
    while (!entry.empty() && is_space(entry.front())) entry.remove_prefix(1);
    while (!entry.empty() && is_space(entry.back())) entry.remove_suffix(1);
    if (!entry.empty()) entries.emplace_back(entry);
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  return entries;
}

void judge_entry_size(Findings& findings, const char* variable, const std::string& entry) {
  if (entry.size() <= kListEntryLimit) return;
  findings.warn(
      fmt::format("an entry of {} has {} characters and never matches", variable, entry.size()),
      fmt::format("entries have at most {} characters", kListEntryLimit));
}

void judge_hosts(Findings& findings) {
  const EnvironmentValue value(kHosts);
  if (!value.is_set()) return;
  const std::vector<std::string> hosts = entries_of(value.view());
  if (hosts.empty()) {
    findings.fail(fmt::format("{} is set and empty: it allows no host", kHosts),
                  "remove it, or name the hosts that the proxy sends");
  }
  for (const std::string& host : hosts) {
    judge_entry_size(findings, kHosts, host);
    if (host.find_first_of("/*") == std::string::npos) continue;
    findings.warn(
        fmt::format("the host \"{}\" never matches", host),
        "write a host as in the header: a name, and a port where it is not the usual one");
  }
}

void judge_origins(Findings& findings) {
  for (const std::string& origin : entries_of(EnvironmentValue(kOrigins).view())) {
    judge_entry_size(findings, kOrigins, origin);
    const std::size_t scheme = origin.find("://");
    if (scheme != std::string::npos && scheme > 0 &&
        origin.find_first_of("/*", scheme + 3) == std::string::npos) {
      continue;
    }
    findings.warn(fmt::format("the origin \"{}\" never matches", origin),
                  "write an origin as a browser sends it: https://name, without a path");
  }
}

void judge_plaintext(Findings& findings) {
  switch (spelling_of(kPlaintext)) {
    case Spelling::kOn:
      findings.warn(
          "requests need not have come through TLS",
          fmt::format("remove {} where others than this machine reach the proxy", kPlaintext));
      break;
    case Spelling::kUnclear:
      findings.warn(fmt::format("{} is \"{}\" and switches nothing on", kPlaintext,
                                EnvironmentValue(kPlaintext).view()),
                    kOnWords);
      break;
    case Spelling::kOff:
      break;
  }
}

void judge_rate(Findings& findings) {
  const EnvironmentValue rate(kRate);
  if (rate.view().empty() || whole_decimal(rate.view()).value_or(0) > 0) return;
  findings.warn(fmt::format("{} is \"{}\" and counts as 120", kRate, rate.view()),
                "write a number above 0 in digits");
}

}  // namespace

Spelling spelling_of(const char* variable) {
  if (policy_env_flag(variable)) return Spelling::kOn;
  const EnvironmentValue value(variable);
  for (const std::string_view word : {"", "0", "false", "no", "off"}) {
    if (equal_ignoring_case(value.view(), word)) return Spelling::kOff;
  }
  return Spelling::kUnclear;
}

Check check_switches() {
  Findings findings("switches");
  judge_switch(findings, kDisableProviders, "provider reads");
  judge_switch(findings, kDisableWrites, "writes");
  for (const std::string& name : unknown_variables()) {
    findings.warn(fmt::format("the server does not know {}", name),
                  fmt::format("correct the name {}, or remove it", name));
  }
  return findings.finish();
}

Check check_http() {
  Findings findings("http");
  const bool is_used = std::ranges::any_of(
      std::initializer_list<const char*>{kToken, kHosts, kOrigins, kRate, kPlaintext},
      [](const char* name) { return EnvironmentValue(name).is_set(); });
  if (!is_used) {
    findings.note("not set up: stdio alone");
    return findings.finish();
  }
  judge_token(findings);
  judge_hosts(findings);
  judge_origins(findings);
  judge_plaintext(findings);
  judge_rate(findings);
  return findings.finish();
}

}  // namespace kova::admin
