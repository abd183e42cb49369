#pragma once

#include <functional>
#include <map>
#include <string>

#include "KDXFileTools/kdxoffload/ExcludePatterns.h"
#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// Called now and then while a tree is listed. When it returns true, the listing ends early and must not be used.
using Stopped = std::function<bool()>;

// Walks the tree of the folder on the calling thread. Follows no link and reads no file. What can't be listed goes to
// `unlisted`, and the walk goes on. Other file systems that are mounted below are part of the tree. The entries of one folder
// stand together; then follow the entries of its folders, one folder after the other.
Listing listTree(const platform::Folder& root, const ExcludePatterns& excluded, const Stopped& stopped);

// Finds out what stands at the destination under the names of the card, in the order of the listing. Looks at nothing else
// there: the folder may hold an archive. If the root can't be opened, nothing stands there.
DestinationListing listDestination(const platform::Folder& root, const Listing& card, const Stopped& stopped);

// The targets of the links at the destination that have the names of the card's links.
std::map<EntryIndex, std::string> linkTargetsAt(const platform::Folder& root, const Listing& card,
                                                const DestinationListing& there);

}  // namespace kdxoffload
