#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Mounts.h"

namespace platform {

// The disks, in order and each once, that hold what is mounted: of a partition its disk, of a volume made of others their
// disks, of an image the disks that its file is on. Empty where there is none, or it is not known.
std::vector<uint64_t> disksOf(const Mount& mount);

}  // namespace platform
