#include "KDXFileTools/kdxoffload/Verdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxoffload/Changes.h"
#include "KDXFileTools/kdxoffload/ExitStatus.h"
#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "KDXFileTools/kdxoffload/NameClashes.h"
#include "KDXFileTools/kdxoffload/SameTime.h"

namespace kdxoffload {

namespace {

using platform::ItemFacts;
using platform::ItemKind;

// What is found out on the way to the verdict.
class Judgement {
 public:
  explicit Judgement(const VerdictFacts& facts)
      : _facts(facts),
        _count(facts.before.entries.size()),
        _fitsTogether(fitTogether(facts)),
        _changesOfCard(changesOfCard(facts.before, facts.after)) {
    for (const PlannedFailure& failure : facts.plan.failures) _obstacles.try_emplace(failure.entry, &failure);
    findSharedNames();
  }

  Verdict give() {
    lookAtDestinations();
    lookAtEntries();
    lookAtWhatIsNotListed();
    _verdict.changes = _changesOfCard.sentences();
    for (std::string& change : _changesAtDestinations.sentences()) _verdict.changes.push_back(std::move(change));
    collectRemarks();
    _verdict.exitStatus = exitStatus();
    _verdict.isSafe = _verdict.exitStatus == ExitStatus::safe;
    _verdict.line = line();
    return std::move(_verdict);
  }

  [[nodiscard]] std::vector<DestinationSet> provedAtTheEnd() const {
    std::vector<DestinationSet> proved(_count);
    for (EntryIndex index = 0; index < _count; ++index) {
      if (_facts.results.unstable.contains(index)) continue;
      for (std::size_t destination = 0; destination < destinations(); ++destination) {
        if (placeOf(index, destination) == Place::asProved) proved[index].insert(destination);
      }
    }
    return proved;
  }

 private:
  // Whether a destination takes two names for one may only show once both are there.
  void findSharedNames() {
    if (!_fitsTogether) return;
    const NameClashes clashes = findNameClashes(_facts.before);
    if (clashes.groups.empty()) return;
    for (const DestinationListing& there : _facts.destinations)
      _sharesName.push_back(entriesTakenForOne(clashes, there));
  }

  // An entry at one destination.
  enum class Place : uint8_t { asProved, notProved, gone, changed, cardsOwnFile, sameFileTwice, sharesName };

  [[nodiscard]] const Entry& entryAt(EntryIndex index) const { return _facts.before.entries[index]; }
  [[nodiscard]] std::size_t destinations() const { return _facts.destinationPaths.size(); }
  [[nodiscard]] std::string_view fileSystemOf(std::size_t destination) const {
    return destination < _facts.volumes.size() ? std::string_view(_facts.volumes[destination].fileSystem) : "";
  }
  [[nodiscard]] int64_t timeGrainOf(std::size_t destination) const {
    return destination < _facts.volumes.size() ? _facts.volumes[destination].timeGrain : 1;
  }
  // Every part is about the same entries and destinations.
  [[nodiscard]] static bool fitTogether(const VerdictFacts& facts) {
    const std::size_t entries = facts.before.entries.size();
    const auto isWhole = [entries](const DestinationListing& listing) { return listing.size() == entries; };
    return facts.results.digests.size() == entries && facts.results.destinations() == facts.destinationPaths.size() &&
           facts.destinations.size() == facts.destinationPaths.size() &&
           std::ranges::all_of(facts.destinations, isWhole);
  }
  [[nodiscard]] Proof proofOf(EntryIndex index, std::size_t destination) const {
    return _fitsTogether ? _facts.results.proof(index, destination) : Proof::none;
  }

  [[nodiscard]] static bool isSameFile(const ItemFacts& one, const ItemFacts& other) {
    return one.kind == ItemKind::file && other.kind == ItemKind::file && one.identity.inode != 0 &&
           one.identity == other.identity;
  }

  // Where nobody looked after the proof, there is nothing to compare with.
  [[nodiscard]] bool isAsSeenAfterProof(EntryIndex index, std::size_t destination) const {
    const auto& after = _facts.results.after;
    if (destination >= after.size() || index >= after[destination].size()) return true;
    const ItemFacts& seen = after[destination][index];
    const ItemFacts& found = _facts.destinations[destination][index];
    if (seen.kind == ItemKind::absent) return true;
    return seen.kind == found.kind && seen.size == found.size &&
           isSameTime(seen.modified, found.modified, timeGrainOf(destination));
  }

  [[nodiscard]] bool goesOn(EntryIndex index, std::size_t destination) const {
    return destination < _facts.continued.size() && _facts.continued[destination].contains(index);
  }

  [[nodiscard]] Place placeOf(EntryIndex index, std::size_t destination) const {
    if (proofOf(index, destination) == Proof::none) return Place::notProved;
    const ItemFacts& wanted = entryAt(index).facts;
    const ItemFacts& found = _facts.destinations[destination][index];
    if (found.kind == ItemKind::absent) return Place::gone;
    if (found.kind != wanted.kind) return Place::changed;
    if (!_sharesName.empty() && _sharesName[destination][index]) return Place::sharesName;
    if (wanted.kind == ItemKind::folder) return Place::asProved;
    const bool hasOtherSize = wanted.kind == ItemKind::file && found.size != wanted.size;
    if (hasOtherSize && !goesOn(index, destination)) return Place::changed;
    if (!isAsSeenAfterProof(index, destination)) return Place::changed;
    if (isSameFile(wanted, found)) return Place::cardsOwnFile;
    for (std::size_t other = 0; other < destination; ++other) {
      if (isSameFile(_facts.destinations[other][index], found)) return Place::sameFileTwice;
    }
    return Place::asProved;
  }

  // What was proved and is not there any more, or is something else now.
  void lookAtDestinations() {
    for (std::size_t destination = 0; destination < destinations(); ++destination) {
      Changes changes;
      bool isAnythingThere = false;
      for (EntryIndex index = 0; index < _count; ++index) {
        const Place place = placeOf(index, destination);
        const std::string_view what = place == Place::gone      ? "is not there any more"
                                      : place == Place::changed ? "changed there meanwhile"
                                                                : "";
        isAnythingThere |= place != Place::notProved && place != Place::gone;
        if (!what.empty()) changes.add(fmt::format("{}: {} {}.", pathAt(destination), pathOf(index), what));
      }
      take(changes, destination, isAnythingThere);
    }
  }

  void take(const Changes& changes, std::size_t destination, bool isAnythingThere) {
    if (!changes.empty() && !isAnythingThere) {
      _changesAtDestinations.add(
          fmt::format("{}: nothing of the card is there any more. It may have been taken away.", pathAt(destination)));
      return;
    }
    for (std::string& change : changes.sentences()) _changesAtDestinations.add(std::move(change));
  }

  [[nodiscard]] std::string pathOf(EntryIndex index) const { return _facts.before.pathOf(index); }
  [[nodiscard]] const std::string& pathAt(std::size_t destination) const {
    return _facts.destinationPaths[destination];
  }

  void lookAtEntries() {
    for (EntryIndex index = 0; index < _count; ++index) {
      const ItemFacts& facts = entryAt(index).facts;
      const bool isFile = facts.kind == ItemKind::file;
      if (isFile) {
        ++_verdict.files;
        _verdict.bytes += facts.size;
      }
      if (facts.kind != ItemKind::folder && facts.kind != ItemKind::link && !isFile) {
        leaveOut(index);
      } else if (!isProved(index)) {
        ++(isFile ? _filesNotProved : _othersNotProved);
        _verdict.notProved.push_back(explained(index));
      } else if (isFile && isThereEverywhere(index)) {
        ++_verdict.proved;
      }
    }
  }

  void leaveOut(EntryIndex index) {
    _isSomethingLeftOut = true;
    _verdict.notProved.push_back({.path = pathOf(index),
                                  .reason = "it is neither a file nor a folder nor a symbolic link, and is not copied",
                                  .advice = "Look whether it is needed."});
  }

  [[nodiscard]] bool isProved(EntryIndex index) const {
    if (!_fitsTogether || destinations() == 0) return false;
    if (_facts.results.failures.contains(index) || _facts.results.unstable.contains(index)) return false;
    if (_obstacles.contains(index)) return false;
    for (std::size_t destination = 0; destination < destinations(); ++destination) {
      const Place place = placeOf(index, destination);
      const bool isOwn = place == Place::asProved || place == Place::gone || place == Place::changed;
      if (!isOwn) return false;
    }
    return true;
  }

  [[nodiscard]] bool isThereEverywhere(EntryIndex index) const {
    for (std::size_t destination = 0; destination < destinations(); ++destination) {
      if (placeOf(index, destination) != Place::asProved) return false;
    }
    return true;
  }

  // The most telling reason first: what a job met, what the plan met, what is seen at the end.
  [[nodiscard]] NotProved explained(EntryIndex index) const {
    const auto failure = _facts.results.failures.find(index);
    const auto obstacle = _obstacles.find(index);
    if (_facts.results.unstable.contains(index)) return withStatus(index, ::ExitStatus::verificationFailed);
    if (failure != _facts.results.failures.end() && failure->second.status != 0) return failed(index, failure->second);
    if (obstacle != _obstacles.end()) {
      return {.path = pathOf(index),
              .reason = reasonForObstacle(obstacle->second->obstacle) + where(obstacle->second->destinations),
              .advice = adviceForObstacle(obstacle->second->obstacle)};
    }
    if (failure != _facts.results.failures.end()) return failed(index, failure->second);
    return unexplained(index);
  }

  [[nodiscard]] NotProved withStatus(EntryIndex index, int status) const {
    return {
        .path = pathOf(index), .status = status, .reason = reasonForStatus(status), .advice = adviceForStatus(status)};
  }

  [[nodiscard]] NotProved failed(EntryIndex index, const Failure& failure) const {
    NotProved lacking = withStatus(index, failure.status);
    if (failure.status == 0) lacking.advice = "Run the same command again.";
    if (failure.status == 0 || !failure.reason.empty()) lacking.reason = failure.reason;
    lacking.reason += where(failure.destinations);
    return lacking;
  }

  [[nodiscard]] NotProved unexplained(EntryIndex index) const {
    DestinationSet lacking;
    for (std::size_t destination = 0; destination < destinations(); ++destination) {
      const Place place = placeOf(index, destination);
      if (place == Place::cardsOwnFile) return withStatus(index, WorkStatus::cardsOwnFile);
      if (place == Place::sharesName) {
        return {.path = pathOf(index),
                .reason = reasonForObstacle(Obstacle::sameNameTwice) + where(DestinationSet::only(destination)),
                .advice = adviceForObstacle(Obstacle::sameNameTwice)};
      }
      if (place == Place::sameFileTwice) {
        return {.path = pathOf(index),
                .reason = "two destinations hold one and the same file",
                .advice = "Give destinations that do not lead to each other."};
      }
      if (place == Place::notProved) lacking.insert(destination);
    }
    return {
        .path = pathOf(index), .reason = "nothing proves it" + where(lacking), .advice = "Run the same command again."};
  }

  // " at /mnt/raid": where not all destinations are meant.
  [[nodiscard]] std::string where(DestinationSet some) const {
    if (some.empty() || some.size() >= destinations()) return "";
    std::string names;
    for (std::size_t destination = 0; destination < destinations(); ++destination) {
      if (some.contains(destination)) names += (names.empty() ? " at " : ", ") + pathAt(destination);
    }
    return names;
  }

  void lookAtWhatIsNotListed() {
    for (const Unlisted& unlisted : _facts.before.unlisted) {
      _isSomethingLeftOut = true;
      _verdict.notProved.push_back(
          {.path = unlisted.path.empty() ? "." : unlisted.path,
           .reason = "it could not be listed: " + std::generic_category().message(unlisted.error),
           .advice = "Mend its rights or the card, and run the same command again."});
    }
    const bool isExcluded = !_facts.before.excluded.empty() || !_facts.after.excluded.empty();
    _isSomethingLeftOut |= isExcluded || !_facts.after.unlisted.empty();
    _isUnread = !_facts.readBack;
    for (EntryIndex index = 0; index < _count; ++index) {
      for (std::size_t destination = 0; destination < destinations(); ++destination) {
        _isUnread |= proofOf(index, destination) == Proof::unread;
      }
    }
  }

  void collectRemarks() {
    for (const std::string& warning : _facts.warnings) remark(warning);
    if (const std::size_t count = _facts.before.excluded.size(); count != 0) {
      remark(fmt::format("{} left out, as was asked for.",
                         count == 1 ? "1 entry was" : shownCount(count) + " entries were"));
    }
    if (_isUnread) remark("Not everything was read back, as was asked for: what the destinations hold is not proved.");
    for (std::size_t destination = 0; destination < destinations(); ++destination) remarkOnDestination(destination);
    for (const std::string& text : _facts.results.remarks) remark(text);
    if (_verdict.files != 0) {
      remark("Not kept: owner and group, extended attributes, access control lists, hard links, holes in files.");
    }
  }

  void remark(std::string text) {
    if (std::ranges::find(_verdict.remarks, text) == _verdict.remarks.end())
      _verdict.remarks.push_back(std::move(text));
  }

  void remarkOnDestination(std::size_t destination) {
    uint64_t adopted = 0;
    bool isAnythingProved = false;
    for (EntryIndex index = 0; index < _count; ++index) {
      const Proof proof = proofOf(index, destination);
      if (entryAt(index).facts.kind != ItemKind::file || proof == Proof::none) continue;
      isAnythingProved = true;
      if (proof == Proof::adopted) ++adopted;
    }
    if (adopted != 0) {
      remark(fmt::format("{} stood at {} already: read from the card and from there, and compared.",
                         shownCount(adopted, "file"), pathAt(destination)));
    }
    if (isAnythingProved && _facts.readBack) remarkOnReadBack(destination);
    if (isAnythingProved) remarkOnWhatIsKept(destination);
  }

  void remarkOnReadBack(std::size_t destination) {
    const platform::ReadBack readBack =
        destination < _facts.volumes.size() ? _facts.volumes[destination].readBack : platform::ReadBack::unknown;
    const std::string name = std::string(fileSystemOf(destination).empty() ? "unknown" : fileSystemOf(destination));
    if (readBack == platform::ReadBack::clientCacheBypassed) {
      remark(
          fmt::format("{} ({}) is served by another machine or program: what was read back may come from its memory.",
                      pathAt(destination), name));
    }
    if (readBack == platform::ReadBack::unknown) {
      remark(fmt::format("{} (file system: {}): it is not known whether what was read back came from a device.",
                         pathAt(destination), name));
    }
  }

  // What the file system took without a complaint and does not keep.
  void remarkOnWhatIsKept(std::size_t destination) {
    const auto names = [&](const std::string& text) { return text.find(pathAt(destination)) != std::string::npos; };
    if (std::ranges::any_of(_facts.results.remarks, names)) return;
    bool keepsModes = true;
    bool keepsTimes = true;
    for (EntryIndex index = 0; index < _count; ++index) {
      const ItemFacts& wanted = entryAt(index).facts;
      if (wanted.kind != ItemKind::file || placeOf(index, destination) != Place::asProved) continue;
      const ItemFacts& found = _facts.destinations[destination][index];
      keepsModes &= found.mode == wanted.mode;
      keepsTimes &= found.modified == wanted.modified;
    }
    const std::string_view what = !keepsModes && !keepsTimes ? "modes and times of change"
                                  : !keepsModes              ? "modes"
                                  : !keepsTimes              ? "times of change"
                                                             : "";
    if (!what.empty()) remark(fmt::format("{} does not keep {} as they are on the card.", pathAt(destination), what));
  }

  [[nodiscard]] bool hasChanged() const { return !_changesOfCard.empty() || !_changesAtDestinations.empty(); }

  [[nodiscard]] int exitStatus() const {
    if (_facts.signal) return ExitStatus::signalled + *_facts.signal;
    if (hasChanged()) return ExitStatus::changedMeanwhile;
    if (_filesNotProved != 0 || _othersNotProved != 0 || !_fitsTogether) return ExitStatus::notProved;
    if (_isSomethingLeftOut || _isUnread || _verdict.files == 0) return ExitStatus::leftOut;
    // Everything has been asked for by name; what it comes to is asked for once more.
    const bool isWhole = _verdict.notProved.empty() && _verdict.proved == _verdict.files && destinations() != 0;
    return isWhole ? ExitStatus::safe : ExitStatus::notProved;
  }

  [[nodiscard]] std::string line() const {
    if (_verdict.isSafe) {
      return fmt::format("SAFE TO ERASE: {} ({}) {} proved on {}.", shownCount(_verdict.files, "file"),
                         shownBytes(_verdict.bytes), _verdict.files == 1 ? "is" : "are",
                         shownCount(destinations(), "destination"));
    }
    return fmt::format("DO NOT ERASE: {}.", reasonNotToErase());
  }

  [[nodiscard]] std::string reasonNotToErase() const {
    std::string reason = whatIsNotProved();
    if (hasChanged()) reason += (reason.empty() ? "" : ", and ") + whoChanged() + " changed meanwhile";
    if (!reason.empty()) return reason;
    if (_facts.signal) return "the offload was stopped before its end";
    if (_verdict.files == 0) return "the card has no files. It may not be mounted";
    if (_isSomethingLeftOut) return "not everything on the card was offloaded";
    return _isUnread ? "not everything was read back" : "not everything is proved";
  }

  [[nodiscard]] std::string whatIsNotProved() const {
    std::string what;
    if (_filesNotProved != 0) {
      what = fmt::format("{} of {}", shownCount(_filesNotProved), shownCount(_verdict.files, "file"));
    }
    if (_othersNotProved != 0) {
      what += fmt::format("{}{} {}", what.empty() ? "" : " and ", shownCount(_othersNotProved),
                          _othersNotProved == 1 ? "folder or link" : "folders or links");
    }
    if (what.empty()) return what;
    return what + (_filesNotProved + _othersNotProved == 1 ? " is not proved" : " are not proved");
  }

  [[nodiscard]] std::string whoChanged() const {
    if (_changesAtDestinations.empty()) return "the card";
    return _changesOfCard.empty() ? "a destination" : "the card and a destination";
  }

  const VerdictFacts& _facts;
  std::size_t _count;
  bool _fitsTogether;
  Verdict _verdict;
  std::map<EntryIndex, const PlannedFailure*> _obstacles;  // the first of each
  std::vector<std::vector<bool>> _sharesName;              // of each destination; empty where no names clash at all
  Changes _changesOfCard;
  Changes _changesAtDestinations;
  uint64_t _filesNotProved = 0;
  uint64_t _othersNotProved = 0;  // folders and links
  bool _isSomethingLeftOut = false;
  bool _isUnread = false;
};

}  // namespace

Verdict verdictOf(const VerdictFacts& facts) {
  return Judgement(facts).give();
}

std::vector<DestinationSet> provedAtTheEnd(const VerdictFacts& facts) {
  return Judgement(facts).provedAtTheEnd();
}

}  // namespace kdxoffload
