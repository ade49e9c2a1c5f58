// Putting a new deployment into its folder: all of its files, or none.
#pragma once

#include <string>
#include <vector>

#include "admin/init/setup.h"

namespace kova::admin {

/// Throws Refusal when the folder above is missing, the folder is something else, or one of the
/// deployment's files is there already; then nothing is written.
void check_folder(const Setup& setup);

/// Throws Refusal, which names the option, for a value that the policy's loader refuses. Leaves
/// nothing behind, and the deployment's identity in this process's environment.
void check_values(const Setup& setup);

/// Writes everything. Throws Refusal when something cannot be written; then nothing is left.
/// Returns the names of what is now in the folder.
std::vector<std::string> write_deployment(const Setup& setup);

}  // namespace kova::admin
