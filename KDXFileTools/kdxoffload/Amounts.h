#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kdxoffload {

// "1.02 TB", "900 bytes", "1 byte": decimal units, three digits.
std::string shownBytes(uint64_t bytes);
// "12,940".
std::string shownCount(uint64_t count);
// "1 file", "12,940 files": for nouns with a plural in "s".
std::string shownCount(uint64_t count, std::string_view noun);

}  // namespace kdxoffload
