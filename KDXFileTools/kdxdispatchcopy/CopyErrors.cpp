#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"

#include <fmt/format.h>

#include <utility>

platform::Error copyError(int64_t code, std::optional<std::string> description, std::optional<std::string> path) {
  return platform::Error{.domain = std::string(KDXCopyErrorDomain),
                         .code = code,
                         .description = std::move(description),
                         .path = std::move(path)};
}

platform::Error wrongNumberOfBytesCopied(uint64_t expected, uint64_t copied) {
  return copyError(CopyErrorCode::sizeDiffers,
                   fmt::format("the expected filesize ({}) is not the number of bytes copied ({})", expected, copied));
}

platform::Error wrongSizeOnDisk(const std::string& temporaryPath, uint64_t expected, uint64_t copied) {
  return copyError(CopyErrorCode::sizeDiffers,
                   fmt::format("the expected filesize ({}) is not the number of bytes for file {} ({})", expected,
                               temporaryPath, copied),
                   temporaryPath);
}
