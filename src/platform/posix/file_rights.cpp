#include "platform/file_rights.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/text.h"

namespace kova {

namespace {

constexpr std::size_t kRecordCapacity = 16384;

void write_number(TextOut out, std::uint64_t number) {
  static_cast<void>(out.append_number(number));
}

void write_user(TextOut out, uid_t user) {
  char record[kRecordCapacity];
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(user, &entry, record, sizeof record, &found) == 0 && found != nullptr) {
    out.copy_cut(found->pw_name);
  } else {
    write_number(out, user);
  }
}

void write_group(TextOut out, gid_t id) {
  char record[kRecordCapacity];
  group entry{};
  group* found = nullptr;
  if (::getgrgid_r(id, &entry, record, sizeof record, &found) == 0 && found != nullptr) {
    out.copy_cut(found->gr_name);
  } else {
    write_number(out, id);
  }
}

}  // namespace

bool read_file_rights(const char* path, FileRights& rights) {
  struct stat status {};
  if (::stat(path, &status) != 0) return false;
  write_user(rights.owner, status.st_uid);
  write_group(rights.group, status.st_gid);
  rights.is_directory = S_ISDIR(status.st_mode);
  rights.owner_is_trusted = status.st_uid == 0 || status.st_uid == ::geteuid();
  rights.group_reads = (status.st_mode & S_IRGRP) != 0;
  rights.group_writes = (status.st_mode & S_IWGRP) != 0;
  rights.others_read = (status.st_mode & S_IROTH) != 0;
  rights.others_write = (status.st_mode & S_IWOTH) != 0;
  // In a folder with this bit each account removes its own files alone.
  const bool shared = (status.st_mode & S_ISVTX) != 0;
  rights.group_replaces = rights.is_directory && rights.group_writes && !shared;
  rights.others_replace = rights.is_directory && rights.others_write && !shared;
  return true;
}

}  // namespace kova
