#pragma once

#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"
#include "platform/NameFolding.h"

namespace kdxoffload {

// Entries of one folder that some file system takes for one.
struct NameClashes {
  std::vector<std::vector<EntryIndex>> groups{};  // of two or more; an entry is in one of them at most
  std::vector<EntryIndex> temporaryNames{};       // of those whose temporary name clashes with another entry
};

NameClashes findNameClashes(const Listing& card);

// All below answer for every entry of the card, at its position.

// True where a file system that folds names in this way takes another entry of the folder for the same.
std::vector<bool> entriesOfOneName(const Listing& card, const NameClashes& clashes, platform::NameFolding folding);

// True where the destination has shown that it takes another entry of the folder for the same: both names lead to one thing
// there. (Hard links do so too, but hardly under names that clash.)
std::vector<bool> entriesTakenForOne(const NameClashes& clashes, const DestinationListing& there);

// True for files that a job gets under another name than the card's: names that jobs can't take, and those that clash, also
// in a folder above, since two such files could get one temporary file.
std::vector<bool> filesThatNeedAliases(const Listing& card, const NameClashes& clashes);

}  // namespace kdxoffload
