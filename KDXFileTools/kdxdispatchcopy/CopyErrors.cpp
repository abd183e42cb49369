#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"

#include <fmt/format.h>

#include <utility>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"

platform::Error copyError(int64_t code, std::optional<std::string> description, std::optional<std::string> path) {
  return platform::Error{.domain = std::string(KDXCopyErrorDomain),
                         .code = code,
                         .description = std::move(description),
                         .path = std::move(path)};
}

platform::Error wrongNumberOfBytesCopied(uint64_t expected, uint64_t copied) {
  return copyError(ExitStatus::sizeDiffers, fmt::format(ErrorText::bytesCopiedDiffer, expected, copied));
}

platform::Error wrongSizeOnDisk(const std::string& temporaryPath, uint64_t expected, uint64_t copied) {
  return copyError(ExitStatus::sizeDiffers, fmt::format(ErrorText::sizeOnDiskDiffers, expected, temporaryPath, copied),
                   temporaryPath);
}
