#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/support/RowName.h"

// The codes by which callers ask for a digest.
inline constexpr uint32_t sha1 = 1;
inline constexpr uint32_t md5 = 2;
inline constexpr uint32_t xxHash64 = 8;
inline constexpr uint32_t xxHash64BE = 16;

// An algorithm, and the system's program that computes it.
struct Algorithm : NamedRow {
  uint32_t code;
  const char* methodName;
  std::size_t digestLength;
  const char* program;
};

inline constexpr std::array algorithms{Algorithm{"SHA1", sha1, "SHA1", 20, "sha1sum"},
                                       Algorithm{"MD5", md5, "MD5", 16, "md5sum"},
                                       Algorithm{"XXHash64", xxHash64, "XXHash64", 8, "xxh64sum"},
                                       Algorithm{"XXHash64BE", xxHash64BE, "XXHash64BE", 8, "xxh64sum"}};

// The hex digits of the file's digest, as that program computes them, in the byte order of the algorithm.
std::string expectedHex(const Algorithm& algorithm, const std::string& path);
