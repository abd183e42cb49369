#pragma once

#include <cstddef>
#include <string>

namespace platform {

// How many threads of this process can run at the same time: as many as there are processors that it may use, or fewer where
// the quota of its control group, or of one above it, is smaller. A part of a processor counts as one. At least 1. As it is
// now.
std::size_t usableProcessors();

// The same for the control groups of a system whose files are below `root`.
std::size_t usableProcessors(const std::string& root);

}  // namespace platform
