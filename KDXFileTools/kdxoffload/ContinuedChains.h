#pragma once

#include <set>

#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// The chain files of the card's hash lists that the destination's own lists continue: what stands there begins with all that the
// card's file names, and names more. Such a file is the card's file kept, although its bytes differ. Reads both of each.
std::set<EntryIndex> continuedChains(const platform::Folder& cardRoot, const Listing& card,
                                     const platform::Folder& root, const DestinationListing& there);

}  // namespace kdxoffload
