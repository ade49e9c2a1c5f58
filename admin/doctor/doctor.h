// `kova-admin doctor`: finds what is wrong with a deployment, and changes nothing.
#pragma once

#include <string>
#include <vector>

#include "admin/common/command_line.h"
#include "admin/doctor/check.h"
#include "admin/doctor/deployments.h"

namespace kova::admin {

/// A Command's `add`.
[[nodiscard]] RunCommand add_doctor(CommandParser& parser);

/// Examines the deployment in the process's environment; its checks are in the order of the report.
/// `environment_file` is the file that it comes from, empty for none.
[[nodiscard]] ExaminedDeployment examine(const std::string& server,
                                         const std::string& environment_file);

/// The worst status of all.
[[nodiscard]] CheckStatus overall_status(const std::vector<Check>& checks);

/// The report for people: a line for each check, and what to do under each that is not ok.
[[nodiscard]] std::string report_text(const std::vector<Check>& checks, bool has_colour);

}  // namespace kova::admin
