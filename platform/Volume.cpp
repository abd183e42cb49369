#include "platform/Volume.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "platform/Disks.h"
#include "platform/FileDescriptor.h"
#include "platform/Mounts.h"

namespace platform {

namespace {

constexpr int64_t microsecond = 1'000;  // nanoseconds
constexpr int64_t millisecond = 1'000 * microsecond;
constexpr int64_t second = 1'000 * millisecond;

// What all file systems of one kind have in common. The grain of times is that of times on the device; times in memory may
// be finer.
struct Kind {
  std::string_view fileSystem;
  ReadBack readBack;
  int64_t timeGrain;
  NameFolding names;
};

using enum ReadBack;
constexpr NameFolding exact = NameFolding::exact;
constexpr NameFolding caseless = NameFolding::caseless;
constexpr NameFolding notKnown = NameFolding::unknown;

constexpr std::array kinds{
    Kind{"ext2", device, second, exact},
    Kind{"ext3", device, second, exact},
    Kind{"ext4", device, 1, exact},
    Kind{"xfs", device, 1, exact},
    Kind{"btrfs", device, 1, exact},
    Kind{"f2fs", device, 1, exact},
    Kind{"jfs", device, 1, notKnown},
    Kind{"nilfs2", device, 1, exact},
    Kind{"bcachefs", device, 1, notKnown},
    Kind{"udf", device, microsecond, exact},
    Kind{"vfat", device, 2 * second, caseless},
    Kind{"msdos", device, 2 * second, caseless},
    Kind{"exfat", device, 10 * millisecond, caseless},
    Kind{"ntfs3", device, 100, notKnown},
    Kind{"ntfs", device, 100, notKnown},
    Kind{"hfsplus", device, second, notKnown},
    Kind{"hfs", device, second, notKnown},
    Kind{"tmpfs", unknown, 1, notKnown},
    Kind{"ramfs", unknown, 1, exact},
    Kind{"nfs", clientCacheBypassed, 1, notKnown},
    Kind{"nfs4", clientCacheBypassed, 1, notKnown},
    // What the server keeps of a time is not known.
    Kind{"cifs", clientCacheBypassed, 2 * second, notKnown},
    Kind{"smb3", clientCacheBypassed, 2 * second, notKnown},
    Kind{"9p", clientCacheBypassed, 1, notKnown},
    Kind{"ceph", clientCacheBypassed, 1, notKnown},
    Kind{"virtiofs", clientCacheBypassed, 1, notKnown},
    Kind{"fuse.sshfs", clientCacheBypassed, second, notKnown},
    Kind{"fuse", clientCacheBypassed, 2 * second, notKnown},
    // The server reads its device through the system's cache of that device.
    Kind{"fuseblk", clientCacheBypassed, 2 * second, notKnown},
};

Kind kindOf(std::string_view fileSystem) {
  const auto found = std::ranges::find(kinds, fileSystem, &Kind::fileSystem);
  if (found != kinds.end()) return *found;
  return fileSystem.starts_with("fuse.") ? kindOf("fuse") : Kind{"", unknown, 1, notKnown};
}

// Some file systems fold names only in folders that are marked, and in folders made in these.
bool isMarkedAsFolding(const std::string& path) {
  constexpr unsigned long foldsNames = 0x40000000;
  const FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  unsigned long flags = 0;
  return folder.isOpen() && ::ioctl(folder.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & foldsNames) != 0;
}

void addMount(const Mount& mount, const std::vector<Mount>& all, Volume& volume) {
  volume.device = mount.device;
  volume.fileSystem = mount.fileSystem;
  volume.mountPoint = mount.mountPoint;
  volume.source = mount.source;
  const std::vector<uint64_t> disks = disksOf(mount);
  if (disks.size() == 1) volume.disk = disks.front();
  // A volume made of several disks.
  if (disks.size() > 1) volume.disk = mount.device;
  const FileDescriptor root(::open("/", O_PATH | O_CLOEXEC));
  const Mount* system = mountWithNumber(all, mountNumberOf(root.get()));
  if (system == nullptr) return;
  const std::vector<uint64_t> systemDisks = disksOf(*system);
  volume.isOnSystemDisk = std::ranges::find_first_of(disks, systemDisks) != disks.end();
}

void addRoom(int folder, Volume& volume) {
  struct statvfs facts = {};
  if (::fstatvfs(folder, &facts) != 0) return;
  volume.blockSize = facts.f_frsize;
  volume.freeBytes = facts.f_blocks == 0 ? UINT64_MAX : uint64_t{facts.f_bavail} * facts.f_frsize;
  volume.freeInodes = facts.f_files == 0 ? UINT64_MAX : uint64_t{facts.f_favail};
  volume.isReadOnly = (facts.f_flag & ST_RDONLY) != 0;
}

}  // namespace

Volume volumeOf(const std::string& path) {
  Volume volume;
  const FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat facts = {};
  if (!folder.isOpen() || ::fstat(folder.get(), &facts) != 0) return volume;
  volume.device = facts.st_dev;
  const std::vector<Mount> all = mounts();
  if (const Mount* mount = mountWithNumber(all, mountNumberOf(folder.get()))) addMount(*mount, all, volume);
  const Kind kind = kindOf(volume.fileSystem);
  volume.readBack = kind.readBack;
  volume.timeGrain = kind.timeGrain;
  volume.names = isMarkedAsFolding(path) ? NameFolding::unicode : kind.names;
  addRoom(folder.get(), volume);
  return volume;
}

uint64_t freeBytesOf(const std::string& path) {
  struct statvfs facts = {};
  return ::statvfs(path.c_str(), &facts) == 0 ? uint64_t{facts.f_bavail} * facts.f_frsize : 0;
}

}  // namespace platform
