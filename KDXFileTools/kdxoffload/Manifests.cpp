#include "KDXFileTools/kdxoffload/Manifests.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "KDXFileTools/kdxoffload/ChecksumList.h"
#include "KDXFileTools/kdxoffload/ChecksumListFile.h"
#include "KDXFileTools/kdxoffload/FolderCursor.h"
#include "KDXFileTools/kdxoffload/FolderDigests.h"
#include "KDXFileTools/kdxoffload/HashFormat.h"
#include "KDXFileTools/kdxoffload/HashHistoryWriter.h"
#include "KDXFileTools/kdxoffload/IgnorePatterns.h"
#include "KDXFileTools/kdxoffload/ListNames.h"
#include "KDXFileTools/kdxoffload/XMLFile.h"
#include "KDXFileTools/kdxoffload/XMLWriter.h"
#include "digest/KDXDigestContext.h"
#include "platform/FileContents.h"
#include "platform/FileURL.h"
#include "platform/HostName.h"

namespace kdxoffload {

namespace {

using platform::Folder;
using platform::ItemFacts;
using platform::ItemKind;

int64_t nanosecondsSince1970() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// Gives a folder that something was written in its time again.
class KeptTime {
 public:
  explicit KeptTime(Folder folder) : _folder(std::move(folder)), _facts(_folder.facts(nullptr)) {}
  KeptTime(KeptTime&&) = default;
  KeptTime& operator=(KeptTime&&) = delete;
  ~KeptTime() {
    const auto now = _facts ? _folder.facts(nullptr) : std::nullopt;
    // A time that is not kept is no loss of proof.
    if (now && now->modified != _facts->modified) _folder.setModeAndTime(_facts->mode, _facts->modified, nullptr);
  }

 private:
  Folder _folder;
  std::optional<ItemFacts> _facts;
};

// What stands in the folders of the card at the destination and is not of the card.
struct Strangers {
  std::vector<std::pair<EntryIndex, std::string>> names{};  // with the folder
  std::vector<std::string> histories{};                     // folders below the top that have hash lists
};

class ManifestWriter {
 public:
  ManifestWriter(const ManifestFacts& facts, const std::function<void()>& goesOn)
      : _facts(facts),
        _card(*facts.card),
        _goesOn(goesOn),
        _rootName(ListNames::rootName(platform::FileURL(facts.destination).lastPathComponent())) {}

  ManifestReport write() {
    std::optional<platform::Error> error;
    std::optional<Folder> root = Folder::open(_facts.destination, &error);
    std::optional<Folder> again = root ? root->openFolder("", &error) : std::nullopt;
    if (!again) {
      warn("no manifest can be written", error);
      return std::move(_report);
    }
    const KeptTime keptTime(std::move(*again));
    const std::vector<KeptTime> keptTimes = keepTimesOfLists(*root);
    if (_facts.wantsHashList) writeHashLists(*root);
    if (_facts.wantsChecksums) writeChecksums(*root);
    return std::move(_report);
  }

 private:
  void warn(std::string_view what, const std::optional<platform::Error>& error) {
    const std::string reason = error && error->description ? *error->description : "the folder can't be read";
    _report.warnings.push_back(fmt::format("{} at {}: {}", what, _facts.shownDestination, reason));
  }

  // Folders of lists that the card brought are folders of the card.
  [[nodiscard]] std::vector<KeptTime> keepTimesOfLists(const Folder& root) const {
    std::vector<KeptTime> kept;
    for (EntryIndex entry = 0; entry < _card.entries.size(); ++entry) {
      if (!isFolder(entry) || _card.entries[entry].name != HashHistory::folderName) continue;
      if (auto folder = root.openFolder(_card.pathOf(entry), nullptr)) kept.emplace_back(std::move(*folder));
    }
    return kept;
  }

  [[nodiscard]] bool isFolder(EntryIndex entry) const { return _card.entries[entry].facts.kind == ItemKind::folder; }

  [[nodiscard]] bool isInLists(EntryIndex entry) const {
    for (; entry != Entry::root; entry = _card.entries[entry].parent) {
      if (_card.entries[entry].name == HashHistory::folderName) return true;
    }
    return false;
  }

  // The hash lists.

  [[nodiscard]] bool isDue() const {
    return _facts.followsKilledRun || std::ranges::any_of(_facts.files, &ProvedFile::isOfThisRun);
  }

  void writeHashLists(const Folder& root) {
    const Strangers strangers = findStrangers(root);
    std::optional<platform::Error> error;
    _histories = HashHistories::read(root, strangers.histories, &error);
    _goesOn();
    if (_histories) {
      GenerationFacts generation = isDue() ? generationFor(strangers) : GenerationFacts{};
      _goesOn();
      if (writeGenerations(root, *_histories, generation, &error)) return;
    }
    if (isDue()) warn("the media hash list can't be written", error);
  }

  [[nodiscard]] Strangers findStrangers(const Folder& root) const {
    Strangers strangers;
    std::map<EntryIndex, std::set<std::string_view>> known;
    for (const Entry& entry : _card.entries) known[entry.parent].insert(entry.name);
    FolderCursor cursor(root, _card.entries);
    lookInto(Entry::root, &root, known[Entry::root], strangers);
    for (EntryIndex folder = 0; folder < _card.entries.size(); ++folder) {
      if (!isFolder(folder) || !_facts.isProved[folder] || isInLists(folder)) continue;
      lookInto(folder, cursor.at(folder, nullptr), known[folder], strangers);
    }
    return strangers;
  }

  void lookInto(EntryIndex index, const Folder* folder, const std::set<std::string_view>& known,
                Strangers& strangers) const {
    _goesOn();
    const auto names = folder == nullptr ? std::nullopt : folder->names(nullptr);
    // What can't be listed may hold anything.
    if (!names) strangers.names.emplace_back(index, "?");
    if (!names) return;
    for (const std::string& name : *names) {
      if (!known.contains(name)) strangers.names.emplace_back(index, name);
      if (name != HashHistory::folderName || index == Entry::root) continue;
      const auto facts = folder->factsOf(name, nullptr);
      if (facts && facts->kind == ItemKind::folder) strangers.histories.push_back(_card.pathOf(index));
    }
  }

  [[nodiscard]] GenerationFacts generationFor(const Strangers& strangers) {
    GenerationFacts generation{.creator = {.created = nanosecondsSince1970(),
                                           .host = platform::hostName(),
                                           .tool = "kdxoffload",
                                           .toolVersion = KDX_VERSION},
                               .started = _facts.started,
                               .rootName = _rootName,
                               .ignored = ownNames()};
    std::vector<FileDigest> digests(_card.entries.size());
    for (const ProvedFile& file : _facts.files) {
      std::string path = _card.pathOf(file.entry);
      if (!file.isOfThisRun && isInHistory(path, file)) continue;
      digests[file.entry] = file.digest;
      if (!XMLWriter::canHold(path)) {
        _report.leftOut.push_back(std::move(path));
        continue;
      }
      const ItemFacts& there = _facts.there[file.entry];
      generation.files.push_back({.path = std::move(path),
                                  .size = there.size,
                                  .modified = there.modified,
                                  .digest = file.digest,
                                  .read = file.read});
    }
    addFolders(generation, strangers, std::move(digests));
    return generation;
  }

  // Lists keep times in microseconds.
  static bool isSameInLists(int64_t one, int64_t other) { return one / 1000 == other / 1000; }

  [[nodiscard]] bool isInHistory(const std::string& path, const ProvedFile& file) const {
    const HashHistory::File* const known = _histories->fileAt(path);
    const auto format = hashFormatOf(file.digest.algorithm);
    if (known == nullptr || !format || known->knownOf(*format) == nullptr) return false;
    const ItemFacts& there = _facts.there[file.entry];
    return known->size == there.size && known->modified && isSameInLists(*known->modified, there.modified);
  }

  // Patterns for what an offload leaves here besides, unless the card has a file of such a name.
  [[nodiscard]] std::vector<std::string> ownNames() const {
    const std::string name = IgnorePatterns::patternFor(_rootName);
    std::vector<std::string> patterns{name + "_*_offload.html"};
    for (const uint32_t algorithm : {KDXDigestAlgorithmMD5, KDXDigestAlgorithmSHA1, KDXDigestAlgorithmXXHash64BE}) {
      patterns.push_back(IgnorePatterns::patternFor(ListNames::checksumList(_rootName, algorithm)));
    }
    std::erase_if(patterns, [this](const std::string& pattern) {
      const IgnorePatterns alone({pattern});
      return std::ranges::any_of(_card.entries,
                                 [&alone](const Entry& entry) { return alone.matches(entry.name, false); });
    });
    return patterns;
  }

  void addFolders(GenerationFacts& generation, const Strangers& strangers, std::vector<FileDigest> digests) const {
    const Listing tree = treeWith(strangers);
    digests.resize(tree.entries.size());
    const auto folders = FolderDigests::of(tree, digests, ignoredIn(tree, generation), _facts.algorithm);
    for (EntryIndex entry = 0; entry < tree.entries.size(); ++entry) {
      if (!folders[entry]) continue;
      std::string path = tree.pathOf(entry);
      if (XMLWriter::canHold(path)) generation.folders.emplace(std::move(path), *folders[entry]);
    }
    if (folders.back()) generation.folders.emplace("", *folders.back());
  }

  // The card with all that makes a folder less than whole.
  [[nodiscard]] Listing treeWith(const Strangers& strangers) const {
    Listing tree{.entries = _card.entries};
    for (EntryIndex entry = 0; entry < tree.entries.size(); ++entry) {
      if (isFolder(entry) && !_facts.isProved[entry]) tree.entries[entry].facts.kind = ItemKind::other;
    }
    for (const auto& [folder, name] : strangers.names) addUnknown(tree, folder, name);
    std::map<std::string, EntryIndex> folders{{"", Entry::root}};
    const bool hasGaps = !_card.excluded.empty() || !_card.unlisted.empty();
    for (EntryIndex entry = 0; hasGaps && entry < _card.entries.size(); ++entry) {
      if (isFolder(entry)) folders.emplace(_card.pathOf(entry), entry);
    }
    for (const std::string& path : _card.excluded) addUnknown(tree, folders, path);
    for (const Unlisted& unlisted : _card.unlisted) addUnknown(tree, folders, unlisted.path);
    return tree;
  }

  static void addUnknown(Listing& tree, const std::map<std::string, EntryIndex>& folders, const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const auto folder = folders.find(slash == std::string::npos ? "" : path.substr(0, slash));
    if (folder != folders.end()) addUnknown(tree, folder->second, path.substr(slash + 1));
  }

  static void addUnknown(Listing& tree, EntryIndex folder, const std::string& name) {
    tree.entries.push_back({.parent = folder, .name = name, .facts = {.kind = ItemKind::other}});
  }

  [[nodiscard]] std::vector<bool> ignoredIn(const Listing& tree, const GenerationFacts& generation) const {
    std::vector<IgnorePatterns> patterns;
    for (const HashHistories::Place& place : _histories->places()) patterns.emplace_back(patternsOf(place, generation));
    std::vector<bool> ignored(tree.entries.size());
    for (EntryIndex entry = 0; entry < tree.entries.size(); ++entry) {
      const std::string path = tree.pathOf(entry);
      const std::size_t place = _histories->placeOf(path);
      const bool isFile = tree.entries[entry].facts.kind == ItemKind::file;
      ignored[entry] = patterns[place].matches(_histories->pathIn(place, path), !isFile);
    }
    return ignored;
  }

  // The checksum list.

  void writeChecksums(const Folder& root) {
    const std::string name = ListNames::checksumList(_rootName, _facts.algorithm);
    std::optional<platform::Error> error;
    if (_facts.files.empty() || name.empty()) return;
    if (isOfCard(name)) {
      _report.warnings.push_back(fmt::format("no checksum list is written at {}: the card has a file \"{}\" of its own",
                                             _facts.shownDestination, name));
      return;
    }
    const std::string before = textOf(root, name);
    const auto old = ChecksumList::filesFrom(before, nullptr).value_or(ListedFiles{});
    const std::string text = linesWith(old);
    if (text == before) return;
    const ListOrigin origin = isOwn(old) ? ListOrigin::ownFile : ListOrigin::unknown;
    if (writeChecksumList(root, name, text, origin, &error)) return;
    warn("the checksum list can't be written", error);
  }

  // Some file systems take names that differ in case for one.
  [[nodiscard]] bool isOfCard(const std::string& name) const {
    const auto isSameLetter = [](char one, char other) {
      const auto lower = [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
      };
      return lower(one) == lower(other);
    };
    return std::ranges::any_of(_card.entries, [&](const Entry& entry) {
      return entry.parent == Entry::root && std::ranges::equal(entry.name, name, isSameLetter);
    });
  }

  static std::string textOf(const Folder& root, const std::string& name) {
    const platform::FileDescriptor file = root.openFile(name, nullptr);
    if (!file.isOpen()) return "";
    return platform::contentsOf(file, XMLFile::largest, nullptr).value_or("");
  }

  // What is said of other files, and then what is proved now. Folders of hash lists prove themselves, and change.
  std::string linesWith(const ListedFiles& old) {
    std::string lines;
    for (const ProvedFile& file : _facts.files) {
      if (isInLists(_card.entries[file.entry].parent)) continue;
      const std::string& path = _checksums.emplace(_card.pathOf(file.entry), file.digest).first->first;
      const auto line = ChecksumList::lineFor(path, file.digest);
      if (line) lines += *line;
      if (!line) _report.notInChecksums.push_back(path);
    }
    std::string others;
    for (const ListedFile& file : old) {
      if (!_checksums.contains(file.path)) others += ChecksumList::lineFor(file.path, file.digest).value_or("");
    }
    return others + lines;
  }

  // True when the history has every digest that the new list does not repeat: then an offload wrote the old one.
  [[nodiscard]] bool isOwn(const ListedFiles& old) const {
    return !old.empty() && std::ranges::all_of(old, [this](const ListedFile& file) {
      const auto found = _checksums.find(file.path);
      return found == _checksums.end() || found->second == file.digest || wasProved(file);
    });
  }

  [[nodiscard]] bool wasProved(const ListedFile& file) const {
    const HashHistory::File* const known = _histories ? _histories->fileAt(file.path) : nullptr;
    const auto format = hashFormatOf(file.digest.algorithm);
    const HashHistory::Known* const first = known != nullptr && format ? known->knownOf(*format) : nullptr;
    return first != nullptr && first->value == hashValueOf(file.digest);
  }

  const ManifestFacts& _facts;
  const Listing& _card;
  const std::function<void()>& _goesOn;
  std::string _rootName;
  std::optional<HashHistories> _histories;
  std::map<std::string, FileDigest> _checksums;  // that the new list names, by path
  ManifestReport _report;
};

}  // namespace

ManifestReport writeManifests(const ManifestFacts& facts, const std::function<void()>& goesOn) {
  return ManifestWriter(facts, goesOn).write();
}

}  // namespace kdxoffload
