#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Folder.h"

namespace kdxoffload {

// Position of an entry in a listing.
using EntryIndex = uint32_t;

// What one name of the card stands for.
struct Entry {
  static constexpr EntryIndex root = UINT32_MAX;

  EntryIndex parent = root;  // the folder that it is in; root: the card itself
  std::string name{};        // the bytes on the card; neither empty nor with "/"
  platform::ItemFacts facts{};
};

// Something on the card that could not be listed.
struct Unlisted {
  std::string path{};  // "" is the card itself
  int error = 0;       // errno
  bool isFolder = false;
};

// All that is on the card, at one moment. Folders come before what is in them, entries of one folder stand together, names of
// a folder in the order of their bytes, so that listings of the same tree are equal. The card's own folder is no entry. A plain value; paths are put
// together when asked for, since ten thousand folders one in another would have paths of hundreds of megabytes.
struct Listing {
  std::vector<Entry> entries{};
  std::map<EntryIndex, std::string> linkTargets{};  // of the symbolic links
  std::vector<Unlisted> unlisted{};                 // in the order met
  std::vector<std::string> excluded{};              // paths that a pattern left out; what is below is not among them

  // Relative to the card, with "/" between names.
  [[nodiscard]] std::string pathOf(EntryIndex entry) const;
  // Of the folder that the entry is in; "" for the card itself.
  [[nodiscard]] std::string folderOf(EntryIndex entry) const;
  // Position behind the last entry that is in the same folder.
  [[nodiscard]] EntryIndex endOfFolder(EntryIndex entry) const;
};

// What stands at one destination under the names of the card: for each entry of a listing, at the same position, its facts
// there. Absent too where a folder on the way is missing; `other`, without an identity, where one is no folder, is a link or
// can't be entered.
using DestinationListing = std::vector<platform::ItemFacts>;

}  // namespace kdxoffload
