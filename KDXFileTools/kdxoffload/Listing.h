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

// One name of the card, and what it stands for.
struct Entry {
  static constexpr EntryIndex root = UINT32_MAX;

  EntryIndex parent = root;  // the folder that it is in; root: the card itself
  std::string name{};        // the bytes on the card; not empty, without "/"
  platform::ItemFacts facts{};
};

// Something on the card that could not be listed.
struct Unlisted {
  std::string path{};  // "" is the card itself
  int error = 0;       // errno
  bool isFolder = false;
};

// Everything on the card at one moment. Folders come before their content, the entries of one folder stand together, and their
// names are in the order of their bytes, so that listings of the same tree are equal. The card's own folder is not an entry. A
// plain value. Paths are made when asked for, because those of ten thousand nested folders would take hundreds of megabytes.
struct Listing {
  std::vector<Entry> entries{};
  std::map<EntryIndex, std::string> linkTargets{};  // of the symbolic links
  std::vector<Unlisted> unlisted{};                 // in the order found
  std::vector<std::string> excluded{};              // paths that a pattern left out, without what is below them

  // Relative to the card, with "/" between names.
  [[nodiscard]] std::string pathOf(EntryIndex entry) const;
  // The path of the entry's folder; "" for the card itself.
  [[nodiscard]] std::string folderOf(EntryIndex entry) const;
  // The position after the last entry of the same folder.
  [[nodiscard]] EntryIndex endOfFolder(EntryIndex entry) const;
};

// What stands at one destination under the names of the card: for each entry of a listing, at the same position, its facts
// there. If a folder of its path is missing, the entry is absent; if one is no folder, is a link or can't be entered, the entry
// is `other`, without an identity.
using DestinationListing = std::vector<platform::ItemFacts>;

}  // namespace kdxoffload
