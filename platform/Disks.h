#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Mounts.h"

namespace platform {

// The disks that the mounted file system is on, in order and each once. For a partition its disk, for a volume made of
// others their disks, for an image the disks of its file. Empty where there is none, or where it is not known.
std::vector<uint64_t> disksOf(const Mount& mount);

}  // namespace platform
