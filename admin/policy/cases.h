// A table of cases: calls, and what a policy is to make of them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/policy/call_judge.h"

namespace kova::admin {

struct PolicyCase {
  std::string name;
  std::string tool;
  std::string arguments;  ///< JSON text
  Verdict expect = Verdict::kDeny;
  std::optional<std::string> reason;  ///< the server's message
  std::optional<std::string> table;   ///< a write's, compared ignoring case
  std::optional<std::string> type;    ///< the same
};

/// Reads a table from its JSON text. Throws Refusal, with line and column, for what is no table of
/// cases.
[[nodiscard]] std::vector<PolicyCase> parse_cases(std::string_view text);

/// The same from a file; a Refusal names it.
[[nodiscard]] std::vector<PolicyCase> read_cases(const std::string& path);

/// What has come of one case.
struct CaseOutcome {
  const PolicyCase* expected;
  CallVerdict got;
  bool as_expected;
  bool unexpected_allow;
};

[[nodiscard]] CaseOutcome judge_case(CallJudge& judge, const PolicyCase& expected);

}  // namespace kova::admin
