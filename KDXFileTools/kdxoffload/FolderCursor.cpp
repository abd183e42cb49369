#include "KDXFileTools/kdxoffload/FolderCursor.h"

#include <algorithm>

namespace kdxoffload {

namespace {

// Enough for every usual tree, and far from what a process may have open.
constexpr std::size_t mostOpen = 64;

}  // namespace

const platform::Folder* FolderCursor::at(EntryIndex folder, platform::ErrorPlace error) {
  const std::vector<EntryIndex> way = wayDownTo(folder);
  const EntryIndex start = way.empty() ? folder : _entries[way.back()].parent;
  if (!goUpTo(start, error)) return nullptr;
  const bool isThere = std::all_of(way.rbegin(), way.rend(), [&](EntryIndex next) { return goDown(next, error); });
  return isThere ? &here() : nullptr;
}

// From the folder up to, and without, the first one that the cursor has come through.
std::vector<EntryIndex> FolderCursor::wayDownTo(EntryIndex folder) const {
  std::vector<EntryIndex> way;
  for (; folder != Entry::root && !_positionOf.contains(folder); folder = _entries[folder].parent) {
    way.push_back(folder);
  }
  return way;
}

bool FolderCursor::goUpTo(EntryIndex folder, platform::ErrorPlace error) {
  const std::size_t depth = folder == Entry::root ? 0 : _positionOf.at(folder) + 1;
  if (depth == 0 || _levels[depth - 1].open) {
    while (_levels.size() > depth) leaveLast();
    return true;
  }
  while (_levels.size() > depth) {
    if (goUp()) continue;
    while (_levels.size() > depth) leaveLast();
    return comeFromRoot(error);
  }
  return true;
}

// A folder that was moved while the cursor was below it has another parent: the identity shows that.
bool FolderCursor::goUp() {
  Level& above = _levels[_levels.size() - 2];
  if (!above.open) {
    std::optional<platform::Folder> parent = here().openParent(nullptr);
    const std::optional<platform::ItemFacts> found = parent ? parent->facts(nullptr) : std::nullopt;
    if (!found || found->identity != above.identity) return false;
    above.open = std::move(parent);
  }
  leaveLast();
  return true;
}

bool FolderCursor::goDown(EntryIndex folder, platform::ErrorPlace error) {
  std::optional<platform::Folder> next = here().openFolder(_entries[folder].name, error);
  const std::optional<platform::ItemFacts> found = next ? next->facts(error) : std::nullopt;
  if (!found) return false;
  _positionOf[folder] = _levels.size();
  _levels.push_back({.folder = folder, .identity = found->identity, .open = std::move(next)});
  if (_levels.size() > mostOpen) _levels[_levels.size() - 1 - mostOpen].open.reset();
  return true;
}

// The long way, for a tree that is changed meanwhile. Where that fails too the cursor starts again from the root.
bool FolderCursor::comeFromRoot(platform::ErrorPlace error) {
  std::string path;
  for (const Level& level : _levels) path += '/' + _entries[level.folder].name;
  _levels.back().open = _root.openFolder(path, error);
  if (_levels.back().open) return true;
  while (!_levels.empty()) leaveLast();
  return false;
}

void FolderCursor::leaveLast() {
  _positionOf.erase(_levels.back().folder);
  _levels.pop_back();
}

}  // namespace kdxoffload
