#include "KDXFileTools/kdxoffload/HashHistories.h"

#include <fmt/format.h>

#include <algorithm>

#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/ShownName.h"

namespace kdxoffload {

namespace {

std::ptrdiff_t depthOf(const std::string& folder) {
  return folder.empty() ? 0 : 1 + std::ranges::count(folder, '/');
}

std::string_view folderAbove(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

// True for a folder of lists itself and for what is in it.
bool isInLists(const Listing& tree, EntryIndex entry) {
  for (; entry != Entry::root; entry = tree.entries[entry].parent) {
    if (tree.entries[entry].name == HashHistory::folderName) return true;
  }
  return false;
}

std::optional<HashHistory> readAt(const platform::Folder& root, const std::string& path, platform::ErrorPlace error) {
  const std::optional<platform::Folder> folder = root.openFolder(path, error);
  return folder ? HashHistory::read(*folder, error) : std::nullopt;
}

// Nobody knows of which history the error is, where there are several.
void nameFolder(platform::ErrorPlace error, const std::string& folder) {
  if (error == nullptr || !*error || folder.empty()) return;
  **error = listError(fmt::format("in \"{}\": {}", shownName(folder), (*error)->description.value_or("")));
}

}  // namespace

std::vector<std::string> HashHistories::foldersIn(const Listing& tree) {
  std::vector<std::string> folders;
  for (EntryIndex entry = 0; entry < tree.entries.size(); ++entry) {
    const Entry& item = tree.entries[entry];
    const bool isOfLists = item.facts.kind == platform::ItemKind::folder && item.name == HashHistory::folderName;
    if (isOfLists && item.parent != Entry::root && !isInLists(tree, item.parent)) {
      folders.push_back(tree.pathOf(item.parent));
    }
  }
  return folders;
}

std::optional<HashHistories> HashHistories::read(const platform::Folder& root, const std::vector<std::string>& folders,
                                                 platform::ErrorPlace error) {
  std::vector<std::string> deepestFirst = folders;
  deepestFirst.emplace_back();
  std::ranges::stable_sort(deepestFirst, std::ranges::greater(), depthOf);
  HashHistories histories;
  for (std::string& folder : deepestFirst) {
    std::optional<HashHistory> history = readAt(root, folder, error);
    if (!history) {
      nameFolder(error, folder);
      return std::nullopt;
    }
    histories._positions[folder] = histories._places.size();
    histories._places.push_back({.folder = std::move(folder), .history = std::move(*history), .above = std::nullopt});
  }
  for (Place& place : histories._places) {
    if (!place.folder.empty()) place.above = histories.placeOf(place.folder);
  }
  return histories;
}

bool HashHistories::areEmpty() const {
  return std::ranges::all_of(_places, [](const Place& place) { return place.history.isEmpty(); });
}

std::size_t HashHistories::placeOf(std::string_view path) const {
  while (true) {
    path = folderAbove(path);
    const auto found = _positions.find(path);
    if (found != _positions.end()) return found->second;
  }
}

std::string_view HashHistories::pathIn(std::size_t place, std::string_view path) const {
  const std::string& folder = _places[place].folder;
  return folder.empty() ? path : path.substr(folder.size() + 1);
}

const HashHistory::File* HashHistories::fileAt(std::string_view path) const {
  std::optional<std::size_t> place = placeOf(path);
  const HashHistory::File* file = nullptr;
  for (; place && file == nullptr; place = _places[*place].above) {
    file = _places[*place].history.fileAt(pathIn(*place, path));
  }
  return file;
}

}  // namespace kdxoffload
