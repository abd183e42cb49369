#include "KDXFileTools/kdxoffload/Changes.h"

#include <fmt/format.h>

#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "KDXFileTools/kdxoffload/Amounts.h"

namespace kdxoffload {

namespace {

using platform::ItemKind;

// Positions in the later listing by those in the earlier one.
constexpr EntryIndex gone = Entry::root;
using Counterparts = std::vector<EntryIndex>;

bool haveSameNames(const Listing& one, const Listing& other) {
  if (one.entries.size() != other.entries.size()) return false;
  for (std::size_t index = 0; index < one.entries.size(); ++index) {
    const Entry& entry = one.entries[index];
    if (entry.parent != other.entries[index].parent || entry.name != other.entries[index].name) return false;
  }
  return true;
}

Counterparts sameOfEach(std::size_t count) {
  Counterparts same(count);
  for (EntryIndex index = 0; index < count; ++index) same[index] = index;
  return same;
}

// Found by name, from the top down: a folder comes before what is in it.
Counterparts counterpartsByName(const Listing& before, const Listing& after) {
  std::map<std::pair<EntryIndex, std::string_view>, EntryIndex> names;
  for (EntryIndex index = 0; index < after.entries.size(); ++index) {
    names[{after.entries[index].parent, after.entries[index].name}] = index;
  }
  Counterparts counterparts(before.entries.size(), gone);
  for (EntryIndex index = 0; index < before.entries.size(); ++index) {
    const Entry& entry = before.entries[index];
    const bool isAtTop = entry.parent == Entry::root;
    if (!isAtTop && counterparts[entry.parent] == gone) continue;
    const auto found = names.find({isAtTop ? Entry::root : counterparts[entry.parent], entry.name});
    if (found != names.end()) counterparts[index] = found->second;
  }
  return counterparts;
}

std::string_view targetOf(const Listing& listing, EntryIndex link) {
  const auto target = listing.linkTargets.find(link);
  return target == listing.linkTargets.end() ? std::string_view() : target->second;
}

bool isSame(const Listing& before, EntryIndex one, const Listing& after, EntryIndex other) {
  const platform::ItemFacts& was = before.entries[one].facts;
  const platform::ItemFacts& is = after.entries[other].facts;
  if (was.kind != is.kind) return false;
  if (was.kind == ItemKind::link) return targetOf(before, one) == targetOf(after, other);
  const bool hasContent = was.kind == ItemKind::file || was.kind == ItemKind::folder;
  const bool isSameSize = was.kind != ItemKind::file || was.size == is.size;
  return !hasContent || (isSameSize && was.modified == is.modified && was.mode == is.mode);
}

void addEntries(Changes& changes, const Listing& before, const Listing& after) {
  const Counterparts counterparts =
      haveSameNames(before, after) ? sameOfEach(before.entries.size()) : counterpartsByName(before, after);
  std::vector<bool> isKnown(after.entries.size());
  for (EntryIndex index = 0; index < before.entries.size(); ++index) {
    const EntryIndex now = counterparts[index];
    if (now == gone) {
      changes.add(fmt::format("{} is not on the card any more.", before.pathOf(index)));
      continue;
    }
    isKnown[now] = true;
    if (!isSame(before, index, after, now)) {
      changes.add(fmt::format("{} changed on the card meanwhile.", before.pathOf(index)));
    }
  }
  for (EntryIndex index = 0; index < after.entries.size(); ++index) {
    if (!isKnown[index]) changes.add(fmt::format("{} came to the card meanwhile.", after.pathOf(index)));
  }
}

std::set<std::string> pathsOfUnlisted(const Listing& listing) {
  std::set<std::string> paths;
  for (const Unlisted& unlisted : listing.unlisted) paths.insert(unlisted.path);
  return paths;
}

void addUnlisted(Changes& changes, const Listing& before, const Listing& after) {
  const std::set<std::string> was = pathsOfUnlisted(before);
  for (const std::string& path : pathsOfUnlisted(after)) {
    if (was.contains(path)) continue;
    changes.add(path.empty() ? "The card can't be listed any more."
                             : fmt::format("{} on the card can't be listed any more.", path));
  }
}

void addExcluded(Changes& changes, const Listing& before, const Listing& after) {
  const std::set<std::string> was(before.excluded.begin(), before.excluded.end());
  const std::set<std::string> is(after.excluded.begin(), after.excluded.end());
  for (const std::string& path : is) {
    if (!was.contains(path)) changes.add(fmt::format("{} came to the card meanwhile, and is left out.", path));
  }
  for (const std::string& path : was) {
    if (!is.contains(path)) changes.add(fmt::format("{}, which is left out, is not on the card any more.", path));
  }
}

}  // namespace

void Changes::add(std::string sentence) {
  if (_sentences.size() < most) {
    _sentences.push_back(std::move(sentence));
  } else {
    ++_left;
  }
}

std::vector<std::string> Changes::sentences() const {
  std::vector<std::string> all = _sentences;
  if (_left != 0) all.push_back(fmt::format("{} more {}.", shownCount(_left), _left == 1 ? "change" : "changes"));
  return all;
}

Changes changesOfCard(const Listing& before, const Listing& after) {
  Changes changes;
  if (!before.entries.empty() && after.entries.empty()) {
    changes.add("Nothing is on the card any more: it may have been taken out.");
    return changes;
  }
  addEntries(changes, before, after);
  addUnlisted(changes, before, after);
  addExcluded(changes, before, after);
  return changes;
}

}  // namespace kdxoffload
