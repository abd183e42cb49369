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

// The errors of a size check; `copied` is the number of bytes that the copy digested.
platform::Error wrongNumberOfBytesCopied(uint64_t expected, uint64_t copied);
// The message ends with the number of bytes copied, not the size found: it tells a short write from a short source.
platform::Error wrongSizeOnDisk(const std::string& temporaryPath, uint64_t expected, uint64_t copied);
