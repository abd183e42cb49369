#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace kdxoffload {

// The chain file of a folder's history: its hash lists, the oldest first, each with the C4 digest of its bytes, so that none can be
// changed or taken out unseen. A plain value.
struct HashListChain {
  static constexpr const char* fileName = "ascmhl_chain.xml";

  struct Link {
    std::string fileName{};
    std::string c4{};
    bool operator==(const Link&) const = default;
  };
  std::vector<Link> links{};  // generation 1, 2, 3 and so on
  bool operator==(const HashListChain&) const = default;

  [[nodiscard]] std::string text() const;
  // None, and an error with listErrorDomain, where it is no chain, has a gap, or names anything but files of its own folder.
  static std::optional<HashListChain> fromText(std::string bytes, platform::ErrorPlace error);
};

}  // namespace kdxoffload
