#pragma once

#include <string>

namespace platform {

// The name of this machine; "unknown" where it has none.
std::string hostName();

}  // namespace platform
