#include "platform/file_system.h"

#include <linux/magic.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <algorithm>
#include <iterator>

#include "base/text.h"

namespace kova {

namespace {

struct Kind {
  std::uint32_t magic;
  const char* name;
  bool is_remote;
  bool is_in_memory;
};

// Numbers that the header does not name are those of statfs(2).
constexpr Kind kKinds[] = {
    {.magic = EXT4_SUPER_MAGIC, .name = "ext4", .is_remote = false, .is_in_memory = false},
    {.magic = BTRFS_SUPER_MAGIC, .name = "btrfs", .is_remote = false, .is_in_memory = false},
    {.magic = XFS_SUPER_MAGIC, .name = "xfs", .is_remote = false, .is_in_memory = false},
    {.magic = 0x2fc12fc1, .name = "zfs", .is_remote = false, .is_in_memory = false},
    {.magic = F2FS_SUPER_MAGIC, .name = "f2fs", .is_remote = false, .is_in_memory = false},
    {.magic = OVERLAYFS_SUPER_MAGIC, .name = "overlay", .is_remote = false, .is_in_memory = false},
    {.magic = TMPFS_MAGIC, .name = "tmpfs", .is_remote = false, .is_in_memory = true},
    {.magic = RAMFS_MAGIC, .name = "ramfs", .is_remote = false, .is_in_memory = true},
    {.magic = NFS_SUPER_MAGIC, .name = "nfs", .is_remote = true, .is_in_memory = false},
    {.magic = SMB_SUPER_MAGIC, .name = "smb", .is_remote = true, .is_in_memory = false},
    {.magic = CIFS_SUPER_MAGIC, .name = "cifs", .is_remote = true, .is_in_memory = false},
    {.magic = SMB2_SUPER_MAGIC, .name = "smb2", .is_remote = true, .is_in_memory = false},
    {.magic = V9FS_MAGIC, .name = "9p", .is_remote = true, .is_in_memory = false},
    {.magic = CEPH_SUPER_MAGIC, .name = "ceph", .is_remote = true, .is_in_memory = false},
    {.magic = AFS_SUPER_MAGIC, .name = "afs", .is_remote = true, .is_in_memory = false},
    {.magic = FUSE_SUPER_MAGIC, .name = "fuse", .is_remote = true, .is_in_memory = false},
};

}  // namespace

bool read_file_system(const char* path, FileSystemFacts& facts) {
  struct statfs kind {};
  struct statvfs space {};
  if (::statfs(path, &kind) != 0 || ::statvfs(path, &space) != 0) return false;
  const auto magic = static_cast<std::uint32_t>(kind.f_type);
  const Kind* const known = std::ranges::find(kKinds, magic, &Kind::magic);
  facts = {};
  TextOut name(facts.name);
  if (known != std::end(kKinds)) {
    name.copy_cut(known->name);
    facts.is_remote = known->is_remote;
    facts.is_in_memory = known->is_in_memory;
  } else if (!name.format("0x%x", magic)) {
    return false;
  }
  facts.free_bytes = static_cast<std::uint64_t>(space.f_bavail) * space.f_frsize;
  return true;
}

}  // namespace kova
