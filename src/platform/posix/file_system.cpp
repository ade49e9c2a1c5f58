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
  const char* name;
  std::uint32_t magic;
  bool is_remote;
  bool is_in_memory;
};

// Numbers that the header does not name are those of statfs(2).
constexpr Kind kKinds[] = {
    {.name = "ext4", .magic = EXT4_SUPER_MAGIC, .is_remote = false, .is_in_memory = false},
    {.name = "btrfs", .magic = BTRFS_SUPER_MAGIC, .is_remote = false, .is_in_memory = false},
    {.name = "xfs", .magic = XFS_SUPER_MAGIC, .is_remote = false, .is_in_memory = false},
    {.name = "zfs", .magic = 0x2fc12fc1, .is_remote = false, .is_in_memory = false},
    {.name = "f2fs", .magic = F2FS_SUPER_MAGIC, .is_remote = false, .is_in_memory = false},
    {.name = "overlay", .magic = OVERLAYFS_SUPER_MAGIC, .is_remote = false, .is_in_memory = false},
    {.name = "tmpfs", .magic = TMPFS_MAGIC, .is_remote = false, .is_in_memory = true},
    {.name = "ramfs", .magic = RAMFS_MAGIC, .is_remote = false, .is_in_memory = true},
    {.name = "nfs", .magic = NFS_SUPER_MAGIC, .is_remote = true, .is_in_memory = false},
    {.name = "smb", .magic = SMB_SUPER_MAGIC, .is_remote = true, .is_in_memory = false},
    {.name = "cifs", .magic = CIFS_SUPER_MAGIC, .is_remote = true, .is_in_memory = false},
    {.name = "smb2", .magic = SMB2_SUPER_MAGIC, .is_remote = true, .is_in_memory = false},
    {.name = "9p", .magic = V9FS_MAGIC, .is_remote = true, .is_in_memory = false},
    {.name = "ceph", .magic = CEPH_SUPER_MAGIC, .is_remote = true, .is_in_memory = false},
    {.name = "afs", .magic = AFS_SUPER_MAGIC, .is_remote = true, .is_in_memory = false},
    {.name = "fuse", .magic = FUSE_SUPER_MAGIC, .is_remote = true, .is_in_memory = false},
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
