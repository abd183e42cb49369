#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/FileDescriptor.h"

namespace platform {

// The whole file, from its start, through the file cache. For files that are read at once and not for media. None, and a
// POSIXErrorDomain error, when it can't be read, or is longer than `largest` bytes (EFBIG).
std::optional<std::string> contentsOf(const FileDescriptor& file, std::size_t largest, ErrorPlace error);

}  // namespace platform
