#pragma once

#include <cstdint>
#include <string>

#include "platform/NameFolding.h"

namespace platform {

// What a file system reads from when a file is read back past the file cache: the device; a server, which may answer from
// its own cache; or it is not known.
enum class ReadBack : uint8_t { device, clientCacheBypassed, unknown };

// What is known of the file system that a folder is on. A plain value; 0 and "" mean that something is not known.
struct Volume {
  uint64_t device = 0;  // the same for all folders of one file system
  // The same for all partitions of one disk. A volume made of several disks has a number of its own. 0: no disk, or not
  // known.
  uint64_t disk = 0;
  bool isOnSystemDisk = false;
  std::string fileSystem{};  // as the system calls it: "ext4", "exfat", "fuse.sshfs"
  std::string mountPoint{};
  std::string source{};     // what is mounted: a device, a share
  uint64_t blockSize = 0;   // bytes that files are rounded up to
  uint64_t freeBytes = 0;   // for this user; UINT64_MAX where the file system knows no limit
  uint64_t freeInodes = 0;  // UINT64_MAX where the file system has no such limit
  int64_t timeGrain = 1;    // nanoseconds: times of change are kept in multiples of it
  NameFolding names = NameFolding::unknown;
  bool isReadOnly = false;
  ReadBack readBack = ReadBack::unknown;
};

// The volume of the folder at the path.
Volume volumeOf(const std::string& path);

// Bytes free there for this user now. For displays; asks the system for nothing else.
uint64_t freeBytesOf(const std::string& path);

}  // namespace platform
