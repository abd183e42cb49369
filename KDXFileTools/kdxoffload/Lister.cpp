#include "KDXFileTools/kdxoffload/Lister.h"

#include <algorithm>
#include <cerrno>

#include "KDXFileTools/kdxoffload/FolderCursor.h"

namespace kdxoffload {

namespace {

using platform::Folder;
using platform::ItemFacts;
using platform::ItemKind;

// Entries between two questions whether to stop.
constexpr std::size_t patience = 1024;

class TreeLister {
 public:
  TreeLister(const Folder& root, const ExcludePatterns& excluded, const Stopped& stopped)
      : _excluded(excluded), _stopped(stopped), _cursor(root, _listing.entries) {}

  Listing list() {
    while (!_pending.empty() && !isStopped()) {
      const EntryIndex next = _pending.back();
      _pending.pop_back();
      listFolder(next);
    }
    return std::move(_listing);
  }

 private:
  [[nodiscard]] bool isStopped() const { return _stopped && _stopped(); }

  void listFolder(EntryIndex index) {
    std::optional<platform::Error> error;
    const Folder* folder = _cursor.at(index, &error);
    std::optional<std::vector<std::string>> names = folder != nullptr ? folder->names(&error) : std::nullopt;
    if (!names) return leaveOut(pathOf(index), error, true);
    std::ranges::sort(*names);
    const std::size_t first = _listing.entries.size();
    addAll(*folder, index, std::move(*names));
    postponeFoldersFrom(first);
  }

  void addAll(const Folder& folder, EntryIndex index, std::vector<std::string> names) {
    const bool isFiltered = !_excluded.patterns().empty();
    const std::string above = isFiltered && index != Entry::root ? pathOf(index) + '/' : "";
    for (std::size_t position = 0; position < names.size(); ++position) {
      if (position % patience == patience - 1 && isStopped()) return;
      if (isFiltered && _excluded.matches(above + names[position])) {
        _listing.excluded.push_back(above + names[position]);
      } else {
        add(folder, index, std::move(names[position]));
      }
    }
  }

  void add(const Folder& folder, EntryIndex parent, std::string name) {
    std::optional<platform::Error> error;
    const std::optional<ItemFacts> facts = folder.factsOf(name, &error);
    if (!facts) return leaveOut(pathIn(parent, name), error, false);
    // A name that leads to nothing: a damaged folder, or a name that the system can't pass on. A file that went away at this
    // very moment looks the same, and then the card is not at rest.
    if (facts->kind == ItemKind::absent) return leaveOut(pathIn(parent, name), noSuchItem(), false);
    if (facts->kind == ItemKind::link && !addLinkTarget(folder, parent, name)) return;
    _listing.entries.push_back({.parent = parent, .name = std::move(name), .facts = *facts});
  }

  bool addLinkTarget(const Folder& folder, EntryIndex parent, const std::string& name) {
    std::optional<platform::Error> error;
    std::optional<std::string> target = folder.linkTarget(name, &error);
    if (!target) {
      leaveOut(pathIn(parent, name), error, false);
      return false;
    }
    _listing.linkTargets.emplace(static_cast<EntryIndex>(_listing.entries.size()), std::move(*target));
    return true;
  }

  static platform::Error noSuchItem() {
    return {.domain = "POSIXErrorDomain", .code = ENOENT, .description = {}, .path = {}};
  }

  void leaveOut(std::string path, const std::optional<platform::Error>& error, bool isFolder) {
    _listing.unlisted.push_back(
        {.path = std::move(path), .error = error ? static_cast<int>(error->code) : EIO, .isFolder = isFolder});
  }

  // The last of them first, since the last that is postponed is the next to be listed.
  void postponeFoldersFrom(std::size_t first) {
    for (std::size_t index = _listing.entries.size(); index-- > first;) {
      if (_listing.entries[index].facts.kind == ItemKind::folder) _pending.push_back(static_cast<EntryIndex>(index));
    }
  }

  [[nodiscard]] std::string pathOf(EntryIndex index) const {
    return index == Entry::root ? "" : _listing.pathOf(index);
  }
  [[nodiscard]] std::string pathIn(EntryIndex parent, const std::string& name) const {
    return parent == Entry::root ? name : _listing.pathOf(parent) + '/' + name;
  }

  const ExcludePatterns& _excluded;
  const Stopped& _stopped;
  Listing _listing;
  FolderCursor _cursor;
  std::vector<EntryIndex> _pending{Entry::root};  // the next one last
};

// Names that a file system can't have are free there: whoever tries to make one is told why.
bool saysThatNoSuchNameCanBe(const platform::Error& error) {
  return error.code == ENAMETOOLONG || error.code == EINVAL || error.code == EILSEQ;
}

ItemFacts factsIn(const Folder& folder, const std::string& name) {
  std::optional<platform::Error> error;
  const std::optional<ItemFacts> found = folder.factsOf(name, &error);
  if (found) return *found;
  return {.kind = error && saysThatNoSuchNameCanBe(*error) ? ItemKind::absent : ItemKind::other};
}

}  // namespace

Listing listTree(const Folder& root, const ExcludePatterns& excluded, const Stopped& stopped) {
  return TreeLister(root, excluded, stopped).list();
}

DestinationListing listDestination(const Folder& root, const Listing& card, const Stopped& stopped) {
  DestinationListing there(card.entries.size());
  FolderCursor cursor(root, card.entries);
  const Folder* folder = &root;
  EntryIndex parent = Entry::root;
  for (std::size_t index = 0; index < there.size(); ++index) {
    if (index % patience == 0 && stopped && stopped()) break;
    const Entry& entry = card.entries[index];
    const ItemKind above = entry.parent == Entry::root ? ItemKind::folder : there[entry.parent].kind;
    if (above == ItemKind::absent) continue;
    if (above == ItemKind::folder && entry.parent != parent) {
      parent = entry.parent;
      folder = cursor.at(parent, nullptr);
    }
    const bool isReached = above == ItemKind::folder && folder != nullptr;
    there[index] = isReached ? factsIn(*folder, entry.name) : ItemFacts{.kind = ItemKind::other};
  }
  return there;
}

std::map<EntryIndex, std::string> linkTargetsAt(const Folder& root, const Listing& card,
                                                const DestinationListing& there) {
  std::map<EntryIndex, std::string> targets;
  FolderCursor cursor(root, card.entries);
  for (const auto& [index, target] : card.linkTargets) {
    if (there[index].kind != ItemKind::link) continue;
    const Folder* folder = cursor.at(card.entries[index].parent, nullptr);
    std::optional<std::string> found = folder ? folder->linkTarget(card.entries[index].name, nullptr) : std::nullopt;
    if (found) targets.emplace(index, std::move(*found));
  }
  return targets;
}

}  // namespace kdxoffload
