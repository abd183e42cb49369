#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Hex text of the bytes in their order: two lower-case digits each, without prefix or separators.
std::string hexstringWithBytes(std::span<const uint8_t> bytes);

// Turns the 16-digit bare hex text of an XXHash64BE digest into that of the XXHash64 digest of the same data, by
// reversing the order of its two-digit groups.
std::string XXHash64BEasXXHash64(std::string_view hex);
