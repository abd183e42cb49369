#pragma once

#include <cstdint>

namespace kdxoffload {

// True when two times of change, in nanoseconds, may be the same on a file system that keeps multiples of `grain`.
bool isSameTime(int64_t one, int64_t other, int64_t grain);

}  // namespace kdxoffload
