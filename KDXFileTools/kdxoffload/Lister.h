#pragma once

#include <functional>
#include <map>
#include <string>

#include "KDXFileTools/kdxoffload/ExcludePatterns.h"
#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// Asked now and then while a tree is listed; the listing ends early, and is not to be used, once it returns true.
using Stopped = std::function<bool()>;

// Walks the folder's tree without following a link and without reading a file, on the calling thread. Whatever can't be
// listed is in `unlisted`, and the walk goes on. Other file systems that are mounted below belong to it. The entries of one
// folder stand together; what its folders hold follows, one folder after the other.
Listing listTree(const platform::Folder& root, const ExcludePatterns& excluded, const Stopped& stopped);

// Looks what stands at the destination under the names of the card, in the order of the listing. Nothing else there is
// looked at: the folder may hold an archive. A root that can't be opened is a destination where nothing stands.
DestinationListing listDestination(const platform::Folder& root, const Listing& card, const Stopped& stopped);

// Where the links lead that stand at the destination under the names of the card's links.
std::map<EntryIndex, std::string> linkTargetsAt(const platform::Folder& root, const Listing& card,
                                                const DestinationListing& there);

}  // namespace kdxoffload
