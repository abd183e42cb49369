#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"

#include <utility>

platform::Error copyError(int64_t code, std::optional<std::string> description, std::optional<std::string> path) {
  return platform::Error{.domain = std::string(KDXCopyErrorDomain),
                         .code = code,
                         .description = std::move(description),
                         .path = std::move(path)};
}
