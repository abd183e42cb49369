#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// A place where a file system, or one of its folders (a bind mount), can be reached.
struct Mount {
  uint64_t number = 0;  // the system's own
  uint64_t device = 0;  // the same for all mounts of one file system
  std::string root{};   // the folder of the file system that is seen here: "/" for all of it
  std::string mountPoint{};
  std::string fileSystem{};  // "ext4", "fuse.sshfs"
  std::string source{};      // a device, a share
};

// All mounts that this process sees, in the order in which they were mounted; empty where the system does not list them.
std::vector<Mount> mounts();

// The mounts in the lines that the system gives. Lines that are not understood are ignored.
std::vector<Mount> parseMounts(std::string_view text);

// The number of the mount through which the open file or folder was reached.
std::optional<uint64_t> mountNumberOf(int descriptor);

// Null when no mount has this number.
const Mount* mountWithNumber(const std::vector<Mount>& all, std::optional<uint64_t> number);

}  // namespace platform
