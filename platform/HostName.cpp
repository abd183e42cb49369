#include "platform/HostName.h"

#include <unistd.h>

#include <array>

namespace platform {

std::string hostName() {
  constexpr std::size_t longest = 256;
  std::array<char, longest> name{};
  // A name that is too long may be left without its end.
  const bool isKnown = ::gethostname(name.data(), name.size() - 1) == 0 && name.front() != '\0';
  return isKnown ? name.data() : "unknown";
}

}  // namespace platform
