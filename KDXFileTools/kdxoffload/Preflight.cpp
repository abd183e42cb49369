#include "KDXFileTools/kdxoffload/Preflight.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <span>
#include <string_view>
#include <system_error>

#include "KDXFileTools/kdxoffload/Verdict.h"
#include "platform/Place.h"

namespace kdxoffload {

namespace {

using platform::FileIdentity;
using platform::NameFolding;

using Places = std::vector<PlaceFacts>;

bool contains(const std::vector<FileIdentity>& folders, const FileIdentity& folder) {
  return std::ranges::find(folders, folder) != folders.end();
}

bool isInside(const PlaceFacts& place, const PlaceFacts& folder) {
  return folder.exists && contains(place.foldersAbove, folder.identity);
}

std::string lastName(const PlaceFacts& place) {
  return std::filesystem::path(place.realPath).filename().string();
}

// Of two that are still to be made, the names count: where it is not known which names are one, all that may be.
bool isSamePlace(const PlaceFacts& one, const PlaceFacts& other) {
  if (one.exists != other.exists) return false;
  if (!one.exists && !one.parentExists) return one.realPath == other.realPath;
  if (one.identity != other.identity) return false;
  const NameFolding folding = one.volume.names;
  return one.exists || platform::foldedName(lastName(one), folding) == platform::foldedName(lastName(other), folding);
}

class Checks {
 public:
  explicit Checks(const PreflightFacts& facts) : _facts(facts), _card(facts.card), _places(facts.destinations) {}

  Preflight check() {
    checkCard();
    for (const PlaceFacts& place : _places) checkAgainstCard(place);
    forEachPair([this](const PlaceFacts& one, const PlaceFacts& other) { checkAgainstEachOther(one, other); });
    for (const PlaceFacts& place : _places) checkPlace(place);
    checkRoom();
    checkUnlisted();
    checkCatalogue();
    for (const PlaceFacts& place : _places) {
      if (place.isLockedByOther) refuse("another offload is at work on the destination {}", place.path);
    }
    for (std::size_t position = 0; position < _places.size(); ++position) warnOfDisks(position);
    return std::move(_found);
  }

 private:
  template <typename... Arguments>
  void refuse(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    _found.refusals.push_back(fmt::format(format, std::forward<Arguments>(arguments)...));
  }
  template <typename... Arguments>
  void warn(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    _found.warnings.push_back(fmt::format(format, std::forward<Arguments>(arguments)...));
  }

  template <typename Check>
  void forEachPair(Check check) const {
    for (std::size_t one = 0; one < _places.size(); ++one) {
      for (std::size_t other = one + 1; other < _places.size(); ++other) check(_places[one], _places[other]);
    }
  }

  void checkCard() {
    if (!_card.exists) return refuse("there is no card at {}", _card.path);
    if (!_card.isFolder) return refuse("the card is no folder: {}", _card.path);
    if (!_card.isReadable) refuse("the card can't be read: {}", _card.path);
  }

  void checkAgainstCard(const PlaceFacts& place) {
    if (!_card.exists) return;
    if (place.exists && place.identity == _card.identity) {
      return refuse("the destination {} is the card itself", place.path);
    }
    if (isInside(_card, place)) refuse("the card {} is inside the destination {}", _card.path, place.path);
    if (isInside(place, _card)) refuse("the destination {} is inside the card {}", place.path, _card.path);
  }

  void checkAgainstEachOther(const PlaceFacts& one, const PlaceFacts& other) {
    if (isSamePlace(one, other)) {
      if (one.exists || one.realPath == other.realPath) {
        return refuse("{} and {} are the same destination", one.path, other.path);
      }
      return refuse("{} and {} may be one name there; make both folders first", one.path, other.path);
    }
    if (isInside(one, other)) refuse("the destination {} is inside the destination {}", one.path, other.path);
    if (isInside(other, one)) refuse("the destination {} is inside the destination {}", other.path, one.path);
  }

  void checkPlace(const PlaceFacts& place) {
    if (place.exists && !place.isFolder) return refuse("the destination is no folder: {}", place.path);
    if (!place.exists && !place.parentExists) {
      return refuse("the folder that the destination {} is to be made in does not exist", place.path);
    }
    if (place.volume.isReadOnly) return refuse("the file system of the destination {} is read-only", place.path);
    if (!place.isWritable) return refuse("the destination {} can't be written", place.path);
    if (place.exists && !place.isReadable) refuse("the destination {} can't be read", place.path);
  }

  // Destinations on one file system share its room.
  void checkRoom() {
    std::map<uint64_t, std::vector<std::size_t>> volumes;
    for (std::size_t position = 0; position < _facts.room.size(); ++position) {
      volumes[_places[position].volume.device].push_back(position);
    }
    for (const auto& [device, positions] : volumes) checkRoomOn(positions);
  }

  void checkRoomOn(const std::vector<std::size_t>& positions) {
    const platform::Volume& volume = _places[positions.front()].volume;
    // A file system that says nothing about its room is not judged by it.
    if (volume.blockSize == 0) return;
    RoomNeeded needed;
    std::string paths;
    for (const std::size_t position : positions) {
      needed.bytes += _facts.room[position].bytes;
      needed.inodes += _facts.room[position].inodes;
      paths += (paths.empty() ? "" : " and ") + _places[position].path;
    }
    needed.bytes += needed.bytes / 100;  // for manifests
    if (needed.bytes > volume.freeBytes) {
      refuse("too little room on {}: {} are needed, {} are free", paths, shownBytes(needed.bytes),
             shownBytes(volume.freeBytes));
    }
    if (needed.inodes > volume.freeInodes) {
      refuse("too few files can be made on {}: {} are needed, there is room for {}", paths, shownCount(needed.inodes),
             shownCount(volume.freeInodes));
    }
  }

  void checkUnlisted() {
    constexpr std::size_t mostShown = 20;
    if (_facts.partial || _facts.unlisted.empty()) return;
    const std::size_t shown = std::min(_facts.unlisted.size(), mostShown);
    for (const Unlisted& item : std::span(_facts.unlisted).first(shown)) {
      refuse("{} of the card can't be read: {}: {}", item.isFolder ? "a folder" : "an entry",
             item.path.empty() ? _card.path : item.path, std::generic_category().message(item.error));
    }
    if (_facts.unlisted.size() > shown) {
      refuse("{} more entries of the card can't be read", shownCount(_facts.unlisted.size() - shown));
    }
  }

  void checkCatalogue() {
    if (_card.exists && contains(_facts.catalogueFolders, _card.identity))
      refuse("the catalogue is on the card, which is never written to");
  }

  void warnOfDisks(std::size_t position) {
    const PlaceFacts& place = _places[position];
    if (place.volume.isOnSystemDisk) warn("the destination {} is on the system's disk", place.path);
    if (isOnOneDisk(place, _card)) warn("the destination {} is on the card's disk", place.path);
    for (std::size_t other = 0; other < position; ++other) {
      if (!isOnOneDisk(place, _places[other])) continue;
      warn("the destinations {} and {} are on one disk", _places[other].path, place.path);
    }
  }

  // What is on one file system is on one disk, known or not.
  static bool isOnOneDisk(const PlaceFacts& one, const PlaceFacts& other) {
    const bool isOneDisk = one.volume.disk != 0 && one.volume.disk == other.volume.disk;
    return isOneDisk || (one.volume.device != 0 && one.volume.device == other.volume.device);
  }

  const PreflightFacts& _facts;
  const PlaceFacts& _card;
  const Places& _places;
  Preflight _found;
};

void lookAtFolder(PlaceFacts& facts) {
  facts.isReadable = platform::canListFolder(facts.path);
  facts.isWritable = platform::canMakeEntriesIn(facts.path);
  facts.isLockedByOther = platform::isFolderLocked(facts.path);
  facts.identity = platform::identityOfFile(facts.path).value_or(FileIdentity{});
  facts.foldersAbove = platform::foldersAbove(facts.path);
  facts.volume = platform::volumeOf(facts.path);
}

// Of a place where nothing stands yet.
void lookAtParent(PlaceFacts& facts, const std::string& parent, const std::string& name) {
  const std::optional<std::string> real = platform::realPathOf(parent);
  if (!real) return;
  facts.realPath = (*real == "/" ? "" : *real) + '/' + name;
  facts.isWritable = platform::canMakeEntriesIn(*real);
  facts.identity = platform::identityOfFile(*real).value_or(FileIdentity{});
  facts.foldersAbove = platform::foldersAbove(*real);
  facts.foldersAbove.push_back(facts.identity);
  facts.volume = platform::volumeOf(*real);
}

std::string withoutSlashesAtEnd(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

}  // namespace

std::vector<platform::FileIdentity> foldersOfCatalogue(const std::string& path) {
  std::error_code none;
  std::filesystem::path place = std::filesystem::absolute(path, none);
  // What is there already may be a link to a file elsewhere, and that file may still be to be made.
  constexpr int mostLinks = 40;  // as the system follows
  for (int link = 0; link < mostLinks && std::filesystem::is_symlink(place, none); ++link) {
    place = place.parent_path() / std::filesystem::read_symlink(place, none);
  }
  do {
    place = place.parent_path();
  } while (place != place.root_path() && !std::filesystem::is_directory(place, none));
  std::vector<platform::FileIdentity> folders = platform::foldersAbove(place.string());
  if (const auto own = platform::identityOfFile(place.string())) folders.push_back(*own);
  return folders;
}

Preflight preflight(const PreflightFacts& facts) {
  return Checks(facts).check();
}

PlaceFacts placeFacts(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code none;
  const fs::path place = withoutSlashesAtEnd(path);
  const fs::path parent = place.has_parent_path() ? place.parent_path() : ".";
  PlaceFacts facts{.path = path, .realPath = platform::realPathOf(path).value_or(path)};
  // A link that leads nowhere takes the name.
  facts.exists = platform::fileExistsAtPath(place.string());
  facts.isFolder = fs::is_directory(fs::status(place, none));
  facts.parentExists = fs::is_directory(fs::status(parent, none));
  if (facts.isFolder) lookAtFolder(facts);
  if (!facts.exists && facts.parentExists) lookAtParent(facts, parent.string(), place.filename().string());
  return facts;
}

}  // namespace kdxoffload
