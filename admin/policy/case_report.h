// The outcomes of a table of cases, as TAP and as JUnit read them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/policy/cases.h"

namespace kova::admin {

/// TAP version 13: the plan, the unexpected allows as comments, then one line a case.
[[nodiscard]] std::string tap_report(const std::vector<CaseOutcome>& outcomes);

/// One testsuite of this name with a testcase a case.
[[nodiscard]] std::string junit_report(std::string_view suite,
                                       const std::vector<CaseOutcome>& outcomes);

}  // namespace kova::admin
