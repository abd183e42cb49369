#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// Goes from folder to folder of a tree that looks like the card's, step by step, through descriptors. So no link is followed,
// and paths may have any depth and length. Only the few folders that were reached last are open. Fast if the folders are asked
// for in the order of a listing. Used by one thread.
class FolderCursor {
 public:
  // Both must live as long as the cursor. The entries may grow.
  FolderCursor(const platform::Folder& root, const std::vector<Entry>& entries) : _root(root), _entries(entries) {}

  // The folder of the entry in this tree; null when it can't be opened. Valid until the next call.
  const platform::Folder* at(EntryIndex folder, platform::ErrorPlace error);

 private:
  // A folder on the way down. The last one is always open.
  struct Level {
    EntryIndex folder = Entry::root;
    platform::FileIdentity identity{};
    std::optional<platform::Folder> open{};
  };

  [[nodiscard]] const platform::Folder& here() const { return _levels.empty() ? _root : *_levels.back().open; }
  [[nodiscard]] std::vector<EntryIndex> wayDownTo(EntryIndex folder) const;
  bool goUpTo(EntryIndex folder, platform::ErrorPlace error);
  bool goUp();
  bool goDown(EntryIndex folder, platform::ErrorPlace error);
  bool comeFromRoot(platform::ErrorPlace error);
  void leaveLast();

  const platform::Folder& _root;
  const std::vector<Entry>& _entries;
  std::vector<Level> _levels;                               // from the one below the root to the current one
  std::unordered_map<EntryIndex, std::size_t> _positionOf;  // in _levels
};

}  // namespace kdxoffload
