#pragma once

#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"
#include "platform/NameFolding.h"

namespace kdxoffload {

// Entries of one folder whose names are the same for some file system.
struct NameClashes {
  std::vector<std::vector<EntryIndex>> groups{};  // of two or more entries; an entry is in at most one group
  std::vector<EntryIndex> temporaryNames{};       // entries whose temporary name clashes with another entry
};

NameClashes findNameClashes(const Listing& card);

// The functions below answer for every entry of the card, at its position.

// True if another entry of the folder has the same name for a file system that folds names in this way.
std::vector<bool> entriesOfOneName(const Listing& card, const NameClashes& clashes, platform::NameFolding folding);

// True if the destination has shown that another entry of the folder has the same name there: both names stand for one file.
// (Hard links do so too, but are unlikely to have names that clash.)
std::vector<bool> entriesTakenForOne(const NameClashes& clashes, const DestinationListing& there);

// True for files that a job must get under another name than the card's: because a job can't handle the name, or because it
// clashes, also in a folder above, so that two files could get the same temporary file.
std::vector<bool> filesThatNeedAliases(const Listing& card, const NameClashes& clashes);

}  // namespace kdxoffload
