#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

// The errors that a copy job reports. Their codes are those of ExitStatus.h.
inline constexpr std::string_view KDXCopyErrorDomain = "KDXCopyErrorDomain";

// An error of KDXCopyErrorDomain.
//   path   of the file that the error is about, if there is one
platform::Error copyError(int64_t code, std::optional<std::string> description,
                          std::optional<std::string> path = std::nullopt);

// The errors of a size check.
//   copied   the number of bytes that the copy digested
platform::Error wrongNumberOfBytesCopied(uint64_t expected, uint64_t copied);
platform::Error wrongSizeOnDisk(const std::string& temporaryPath, uint64_t expected, uint64_t copied);
