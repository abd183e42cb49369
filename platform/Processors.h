#pragma once

#include <cstddef>
#include <string>

namespace platform {

// How many threads of this process can run at the same time: the processors that it may use, less what the quotas of its
// control group and of those above it leave of them, rounded up. At least 1. As it is now.
std::size_t usableProcessors();

// The same for the control groups of a system whose files are below `root`.
std::size_t usableProcessors(const std::string& root);

}  // namespace platform
