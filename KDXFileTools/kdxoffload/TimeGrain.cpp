#include "KDXFileTools/kdxoffload/TimeGrain.h"

namespace kdxoffload {

namespace {

constexpr int64_t millisecond = 1'000'000;
constexpr int64_t second = 1000 * millisecond;

}  // namespace

int64_t timeGrainOf(std::string_view fileSystem) {
  if (fileSystem == "vfat" || fileSystem == "msdos") return 2 * second;
  if (fileSystem == "exfat") return 10 * millisecond;
  if (fileSystem == "hfs" || fileSystem == "hfsplus") return second;
  // What is behind these is not known: many protocols carry whole seconds.
  if (fileSystem.starts_with("fuse") || fileSystem == "ext2" || fileSystem == "ext3") return second;
  if (fileSystem == "ntfs" || fileSystem == "ntfs3" || fileSystem == "cifs" || fileSystem == "smb3") return 100;
  return 1;
}

bool isSameTime(int64_t one, int64_t other, std::string_view fileSystem) {
  const uint64_t apart = one > other ? static_cast<uint64_t>(one) - static_cast<uint64_t>(other)
                                     : static_cast<uint64_t>(other) - static_cast<uint64_t>(one);
  return apart < static_cast<uint64_t>(timeGrainOf(fileSystem));
}

}  // namespace kdxoffload
