// Judging who may change what a deployment rests on.
#pragma once

#include <string>
#include <string_view>

#include "admin/doctor/check.h"

namespace kova::admin {

/// What matters about a folder: that nobody adds files to it, or only that nobody replaces the ones
/// in it.
enum class FolderUse { kNobodyAdds, kNobodyReplaces };

/// Judges who may change a file and replace it in its folder and in the folders above. `what` names
/// it in the report.
void judge_writers(Findings& findings, std::string_view what, const std::string& path,
                   FolderUse use);

/// Judges who may change a folder's files and add to it; what lies above is left out.
void judge_folder(Findings& findings, std::string_view what, const std::string& path,
                  FolderUse use);

/// Judges who beside its owner may read a file that holds a secret.
void judge_readers(Findings& findings, std::string_view what, const std::string& path);

/// The folder that a path lies in, without the separator at its end unless it is the root; empty
/// for a path without a folder.
[[nodiscard]] std::string folder_of(const std::string& path);

}  // namespace kova::admin
