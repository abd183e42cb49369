#include "KDXFileTools/kdxoffload/Lister.h"

namespace kdxoffload {

Listing listTree(const platform::Folder& /*root*/, const ExcludePatterns& /*excluded*/, const Stopped& /*stopped*/) {
  return {};
}

DestinationListing listDestination(const platform::Folder& /*root*/, const Listing& card, const Stopped& /*stopped*/) {
  return DestinationListing(card.entries.size());
}

}  // namespace kdxoffload
