#pragma once

#include <cstdint>
#include <string_view>

namespace kdxoffload {

// How coarsely a file system keeps times of change, in nanoseconds: two times that are less apart may be the same one. 1 where
// it keeps them as they are.
//   fileSystem   as platform::Volume has it
int64_t timeGrainOf(std::string_view fileSystem);

// True when both may be the same time of change at that file system.
bool isSameTime(int64_t one, int64_t other, std::string_view fileSystem);

}  // namespace kdxoffload
