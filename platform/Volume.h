#pragma once

#include <cstdint>
#include <string>

#include "platform/NameFolding.h"

namespace platform {

// How a read-back past the file cache is served by a file system: by the device, by a server whose own cache can't be told
// from it, or it is not known.
enum class ReadBack : uint8_t { device, clientCacheBypassed, unknown };

// What is known of the file system that a folder is on. A plain value; 0 and "" where it can't be told.
struct Volume {
  uint64_t device = 0;  // the same for all folders of one file system
  // The same for all partitions of one disk; several disks together are one of their own; 0: no disk, or not known.
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

// Of the file system of the folder at the path.
Volume volumeOf(const std::string& path);

// Bytes free there for this user now; asks nothing else, for displays.
uint64_t freeBytesOf(const std::string& path);

}  // namespace platform
