#pragma once

#include <cstddef>
#include <string>

namespace platform {

// How many threads of this process can run at the same time now: the number of processors that it may use, or fewer if the
// quota of its control group, or of a group above, is smaller. A fraction of a processor counts as one. At least 1.
std::size_t usableProcessors();

// The same for the control groups of a system whose files are below `root`.
std::size_t usableProcessors(const std::string& root);

}  // namespace platform
