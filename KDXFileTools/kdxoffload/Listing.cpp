#include "KDXFileTools/kdxoffload/Listing.h"

#include <algorithm>

namespace kdxoffload {

std::string Listing::pathOf(EntryIndex entry) const {
  std::vector<const std::string*> names;
  for (; entry != Entry::root; entry = entries[entry].parent) names.push_back(&entries[entry].name);
  std::string path;
  std::ranges::reverse(names);
  for (const std::string* name : names) {
    if (!path.empty()) path += '/';
    path += *name;
  }
  return path;
}

std::string Listing::folderOf(EntryIndex entry) const {
  const EntryIndex parent = entries[entry].parent;
  return parent == Entry::root ? "" : pathOf(parent);
}

EntryIndex Listing::endOfFolder(EntryIndex entry) const {
  const EntryIndex parent = entries[entry].parent;
  while (entry < entries.size() && entries[entry].parent == parent) ++entry;
  return entry;
}

}  // namespace kdxoffload
