#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

// The errors that a copy job reports, and their codes, which become exit statuses.
inline constexpr std::string_view KDXCopyErrorDomain = "KDXCopyErrorDomain";

namespace CopyErrorCode {

inline constexpr int64_t externalHashDiffers = 103;
inline constexpr int64_t sizeDiffers = 104;
inline constexpr int64_t destinationDigestDiffers = 105;
inline constexpr int64_t finalNameTaken = 109;
inline constexpr int64_t verificationFailed = 121;

}  // namespace CopyErrorCode

// An error of KDXCopyErrorDomain; `path` is that of the file it is about, where it is about one.
platform::Error copyError(int64_t code, std::optional<std::string> description,
                          std::optional<std::string> path = std::nullopt);
