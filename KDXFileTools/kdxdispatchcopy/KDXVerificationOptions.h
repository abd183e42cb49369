#pragma once

#include <cstdint>

// What a job does to prove its copy; a bit set.
inline constexpr int32_t KDXVerificationOptionHashDuringCopy = 2;      // digest while copying
inline constexpr int32_t KDXVerificationOptionVerifySource = 4;        // read the source back
inline constexpr int32_t KDXVerificationOptionVerifyDestinations = 8;  // read the destinations back
inline constexpr int32_t KDXVerificationOptionSkipFileSizeCheck = 16;  // do not check sizes on disk
