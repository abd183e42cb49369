#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"

// A tree that exists only here, as a card or as what stands at a destination. Folders above a path are made. Every thing in
// it is another one, and none of them is in another tree, but for what `sameAs` makes.
class TreeInMemory {
 public:
  static constexpr int64_t usualTime = 1'700'000'000'123'456'789;

  explicit TreeInMemory(uint64_t device) : _device(device) {}

  TreeInMemory& file(const std::string& path, uint64_t size = 100, int64_t modified = usualTime) {
    return add(path, {.kind = platform::ItemKind::file, .mode = 0644, .size = size, .modified = modified});
  }
  TreeInMemory& folder(const std::string& path) {
    return add(path, {.kind = platform::ItemKind::folder, .mode = 0755});
  }
  TreeInMemory& link(const std::string& path, const std::string& target) {
    _targets[path] = target;
    return add(path, {.kind = platform::ItemKind::link, .mode = 0777, .size = target.size()});
  }
  TreeInMemory& other(const std::string& path) { return add(path, {.kind = platform::ItemKind::other}); }
  // Another name for what stands in a tree already.
  TreeInMemory& sameAs(const std::string& path, const TreeInMemory& tree, const std::string& pathThere) {
    add(path, {});
    _facts[path] = tree._facts.at(pathThere);
    return *this;
  }

  platform::ItemFacts& facts(const std::string& path) { return _facts.at(path); }

  [[nodiscard]] kdxoffload::Listing listing() const {
    kdxoffload::Listing listing;
    addBelow(listing, kdxoffload::Entry::root, "");
    return listing;
  }

  // What stands in this tree under the names of the card.
  [[nodiscard]] kdxoffload::DestinationListing underNamesOf(const kdxoffload::Listing& card) const {
    kdxoffload::DestinationListing there;
    for (kdxoffload::EntryIndex index = 0; index < card.entries.size(); ++index) {
      const kdxoffload::EntryIndex parent = card.entries[index].parent;
      using platform::ItemKind;
      const ItemKind above = parent == kdxoffload::Entry::root ? ItemKind::folder : there[parent].kind;
      const auto found = _facts.find(card.pathOf(index));
      const bool isReached = above == ItemKind::folder && found != _facts.end();
      const ItemKind instead =
          above == ItemKind::folder || above == ItemKind::absent ? ItemKind::absent : ItemKind::other;
      there.push_back(isReached ? found->second : platform::ItemFacts{.kind = instead});
    }
    return there;
  }

  static kdxoffload::EntryIndex indexOf(const kdxoffload::Listing& listing, const std::string& path) {
    for (kdxoffload::EntryIndex index = 0; index < listing.entries.size(); ++index) {
      if (listing.pathOf(index) == path) return index;
    }
    throw std::runtime_error("not on the card: " + path);
  }

 private:
  TreeInMemory& add(const std::string& path, platform::ItemFacts facts) {
    const std::size_t slash = path.rfind('/');
    if (slash != std::string::npos && !_facts.contains(path.substr(0, slash))) folder(path.substr(0, slash));
    facts.identity = {.device = _device, .inode = ++_inodes};
    _facts[path] = facts;
    return *this;
  }

  static std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
  }

  void addBelow(kdxoffload::Listing& listing, kdxoffload::EntryIndex parent, const std::string& folder) const {
    std::vector<std::pair<kdxoffload::EntryIndex, std::string>> folders;
    for (const auto& [path, facts] : _facts) {
      if (folderOf(path) != folder) continue;
      const auto index = static_cast<kdxoffload::EntryIndex>(listing.entries.size());
      const std::string name = folder.empty() ? path : path.substr(folder.size() + 1);
      listing.entries.push_back({.parent = parent, .name = name, .facts = facts});
      if (facts.kind == platform::ItemKind::link) listing.linkTargets[index] = _targets.at(path);
      if (facts.kind == platform::ItemKind::folder) folders.emplace_back(index, path);
    }
    for (const auto& [index, path] : folders) addBelow(listing, index, path);
  }

  uint64_t _device;
  uint64_t _inodes = 0;
  std::map<std::string, platform::ItemFacts> _facts;
  std::map<std::string, std::string> _targets;
};
