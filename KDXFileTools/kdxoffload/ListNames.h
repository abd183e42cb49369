#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kdxoffload {

// Names of the files that an offload leaves at a destination. Times are nanoseconds since 1970, UTC.
namespace ListNames {

// The name of a destination's folder as a part of the others: at most 100 bytes, what is not UTF-8 or not allowed in names on FAT is "_". A
// folder without a name is "root".
std::string rootName(std::string_view folderName);

// "0001_A001_2026-11-23_002618Z.mhl"; the root's name as rootName gives it.
std::string hashList(std::size_t generation, std::string_view rootName, int64_t started);
// "A001_2026-11-23_002618Z_offload.html".
std::string report(std::string_view rootName, int64_t started);
// "A001.md5"; "" for a digest that there is no such list for.
std::string checksumList(std::string_view rootName, uint32_t algorithm);

}  // namespace ListNames

}  // namespace kdxoffload
