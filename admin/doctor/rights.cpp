#include "admin/doctor/rights.h"

#include <fmt/format.h>

#include "platform/file_rights.h"

namespace kova::admin {

namespace {

constexpr std::string_view kTakeRightsAway =
    "take the right to change it away from everybody but its owner and the administrator";

void judge_owner(Findings& findings, std::string_view what, const std::string& path,
                 const FileRights& rights) {
  if (rights.owner_is_trusted) return;
  findings.warn(fmt::format("{} {} belongs to {}, who may replace it", what, path, rights.owner),
                "give it to the account that runs the server or to the administrator");
}

void judge_change(Findings& findings, std::string_view what, const std::string& path,
                  const FileRights& rights, bool others, bool group) {
  judge_owner(findings, what, path, rights);
  if (others) {
    findings.fail(fmt::format("every account may change {} {}", what, path), kTakeRightsAway);
  } else if (group) {
    findings.warn(fmt::format("{} may change {} {}", rights.group, what, path), kTakeRightsAway);
  }
}

bool read_rights(Findings& findings, std::string_view what, const std::string& path,
                 FileRights& rights) {
  if (read_file_rights(path.c_str(), rights)) return true;
  findings.warn(fmt::format("the rights of {} {} cannot be read", what, path),
                "run doctor as the account that runs the server");
  return false;
}

void judge_folders_above(Findings& findings, const std::string& path) {
  std::string folder = folder_of(path);
  for (std::string above = folder_of(folder); !above.empty() && above != folder;
       folder = above, above = folder_of(folder)) {
    FileRights rights;
    if (!read_file_rights(above.c_str(), rights)) return;
    judge_change(findings, "the folder", above, rights, rights.others_replace,
                 rights.group_replaces);
  }
}

}  // namespace

std::string folder_of(const std::string& path) {
  const std::size_t end = path.find_last_of("/\\");
  if (end == std::string::npos) return {};
  const bool is_root = end == 0 || (end == 2 && path[1] == ':');
  return path.substr(0, is_root ? end + 1 : end);
}

void judge_folder(Findings& findings, std::string_view what, const std::string& path,
                  FolderUse use) {
  FileRights rights;
  if (!read_rights(findings, what, path, rights)) return;
  const bool adds = use == FolderUse::kNobodyAdds;
  judge_change(findings, what, path, rights, adds ? rights.others_write : rights.others_replace,
               adds ? rights.group_writes : rights.group_replaces);
}

void judge_writers(Findings& findings, std::string_view what, const std::string& path,
                   FolderUse use) {
  FileRights rights;
  if (!read_rights(findings, what, path, rights)) return;
  judge_change(findings, what, path, rights, rights.others_write, rights.group_writes);
  judge_folder(findings, "the folder", folder_of(path), use);
  judge_folders_above(findings, path);
}

void judge_readers(Findings& findings, std::string_view what, const std::string& path) {
  FileRights rights;
  if (!read_rights(findings, what, path, rights)) return;
  if (rights.others_read) {
    findings.fail(fmt::format("every account may read {} {}", what, path),
                  "let its owner alone read it (mode 0600), and draw new secrets");
  } else if (rights.group_reads) {
    findings.warn(fmt::format("{} may read {} {}", rights.group, what, path),
                  "let its owner alone read it, unless that group approves");
  }
}

}  // namespace kova::admin
