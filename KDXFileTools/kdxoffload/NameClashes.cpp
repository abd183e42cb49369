#include "KDXFileTools/kdxoffload/NameClashes.h"

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "KDXFileTools/kdxoffload/Plan.h"

namespace kdxoffload {

namespace {

using platform::FileIdentity;
using platform::foldedName;
using platform::ItemKind;
using platform::NameFolding;

constexpr std::string_view temporaryExtension = ".kdxcopy";

using Group = std::vector<EntryIndex>;

// Splits entries by what `keyOf` gives for them and keeps the parts with more than one.
template <typename KeyOf>
std::vector<Group> groupsOf(const Group& entries, KeyOf keyOf) {
  std::map<decltype(keyOf(EntryIndex{})), Group> parts;
  for (const EntryIndex index : entries) parts[keyOf(index)].push_back(index);
  std::vector<Group> groups;
  for (auto& [key, part] : parts) {
    if (part.size() > 1) groups.push_back(std::move(part));
  }
  return groups;
}

// Looks at the folders one by one. Few names clash: they are first compared by a number each.
class ClashFinder {
 public:
  explicit ClashFinder(const Listing& card) : _card(card) {}

  NameClashes find() {
    for (EntryIndex first = 0; first < _card.entries.size();) {
      const EntryIndex end = _card.endOfFolder(first);
      lookAt(first, end);
      first = end;
    }
    return std::move(_found);
  }

 private:
  [[nodiscard]] std::string folded(EntryIndex index) const {
    return foldedName(_card.entries[index].name, NameFolding::unknown);
  }

  void lookAt(EntryIndex first, EntryIndex end) {
    static const std::string extension = foldedName(temporaryExtension, NameFolding::unknown);
    bool hasTemporaryNames = false;
    _hashes.clear();
    for (EntryIndex index = first; index < end; ++index) {
      const std::string name = folded(index);
      hasTemporaryNames = hasTemporaryNames || name.ends_with(extension);
      _hashes.emplace_back(std::hash<std::string>{}(name), index);
    }
    std::ranges::sort(_hashes);
    addGroups();
    if (hasTemporaryNames) addTemporaryNames(first, end);
  }

  void addGroups() {
    for (auto first = _hashes.begin(); first != _hashes.end();) {
      Group alike;
      auto next = first;
      for (; next != _hashes.end() && next->first == first->first; ++next) alike.push_back(next->second);
      if (alike.size() > 1) {
        for (Group& group : groupsOf(alike, [this](EntryIndex index) { return folded(index); })) {
          _found.groups.push_back(std::move(group));
        }
      }
      first = next;
    }
  }

  void addTemporaryNames(EntryIndex first, EntryIndex end) {
    std::set<std::string> names;
    for (EntryIndex index = first; index < end; ++index) names.insert(folded(index));
    for (EntryIndex index = first; index < end; ++index) {
      const std::string temporary = _card.entries[index].name + std::string(temporaryExtension);
      if (names.contains(foldedName(temporary, NameFolding::unknown))) _found.temporaryNames.push_back(index);
    }
  }

  const Listing& _card;
  NameClashes _found;
  std::vector<std::pair<std::size_t, EntryIndex>> _hashes;  // of the folder that is looked at
};

void mark(const std::vector<Group>& groups, std::vector<bool>& marked) {
  for (const Group& group : groups) {
    for (const EntryIndex index : group) marked[index] = true;
  }
}

}  // namespace

NameClashes findNameClashes(const Listing& card) {
  return ClashFinder(card).find();
}

std::vector<bool> entriesOfOneName(const Listing& card, const NameClashes& clashes, NameFolding folding) {
  std::vector<bool> marked(card.entries.size());
  const auto keyOf = [&](EntryIndex index) { return foldedName(card.entries[index].name, folding); };
  for (const Group& group : clashes.groups) mark(groupsOf(group, keyOf), marked);
  return marked;
}

std::vector<bool> entriesTakenForOne(const NameClashes& clashes, const DestinationListing& there) {
  std::vector<bool> marked(there.size());
  const auto keyOf = [&](EntryIndex index) { return there[index].identity; };
  for (Group group : clashes.groups) {
    std::erase_if(group, [&](EntryIndex index) { return there[index].identity == FileIdentity{}; });
    mark(groupsOf(group, keyOf), marked);
  }
  return marked;
}

std::vector<bool> filesThatNeedAliases(const Listing& card, const NameClashes& clashes) {
  std::vector<bool> marked(card.entries.size());
  mark(clashes.groups, marked);
  for (EntryIndex index = 0; index < marked.size(); ++index) {
    const EntryIndex parent = card.entries[index].parent;
    if (parent != Entry::root && marked[parent]) marked[index] = true;
  }
  for (const EntryIndex index : clashes.temporaryNames) marked[index] = true;
  for (EntryIndex index = 0; index < marked.size(); ++index) {
    const Entry& entry = card.entries[index];
    marked[index] = entry.facts.kind == ItemKind::file && (marked[index] || needsAlias(entry.name));
  }
  return marked;
}

}  // namespace kdxoffload
