#include "KDXFileTools/kdxoffload/Plan.h"

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <map>
#include <numeric>
#include <optional>

#include "KDXFileTools/kdxoffload/NameClashes.h"
#include "KDXFileTools/kdxoffload/SameTime.h"
#include "KDXFileTools/kdxoffload/SequenceFinder.h"
#include "platform/Text.h"

namespace kdxoffload {

namespace {

using platform::FileIdentities;
using platform::FileIdentity;
using platform::ItemFacts;
using platform::ItemKind;

// What there is to do about one entry at one destination.
enum class Step : uint8_t { nothing, proved, copy, replace, compare, compareOurs, makeFolder, makeLink };

// A step, or why there is none.
struct Decision {
  Step step = Step::nothing;
  std::optional<Obstacle> obstacle{};
};

Decision obstacle(Obstacle why) {
  return {.obstacle = why};
}

// The work of the jobs on one file.
struct Work {
  DestinationSet copy{};
  DestinationSet replace{};
  DestinationSet compare{};
  DestinationSet compareOurs{};  // and replace what differs, without being asked
};

// What stands in the way of anything that is not of its kind.
Obstacle obstacleOf(const ItemFacts& there) {
  switch (there.kind) {
    case ItemKind::folder:
      return Obstacle::folderInTheWay;
    case ItemKind::link:
      return Obstacle::linkInTheWay;
    case ItemKind::file:
      return Obstacle::fileInTheWay;
    default:
      return there.identity == FileIdentity{} ? Obstacle::notWritable : Obstacle::otherInTheWay;
  }
}

Decision decideFolder(const ItemFacts& there) {
  if (there.kind == ItemKind::absent) return {.step = Step::makeFolder};
  if (there.kind == ItemKind::folder) return {};
  return obstacle(obstacleOf(there));
}

// Targets are null where they are not known.
Decision decideLink(const ItemFacts& there, const std::string* target, const std::string* targetThere) {
  if (there.kind == ItemKind::absent) return {.step = Step::makeLink};
  if (there.kind != ItemKind::link) return obstacle(obstacleOf(there));
  if (target == nullptr || targetThere == nullptr) return {.step = Step::makeLink};
  return *target == *targetThere ? Decision{.step = Step::proved} : obstacle(Obstacle::differentLink);
}

bool isAsOnCard(const FileRecord& record, const ItemFacts& onCard) {
  return record.size == onCard.size && record.modified == onCard.modified;
}

bool isAsAtDestination(const FileRecord& record, const ItemFacts& there, int64_t grain) {
  return record.destinationSize == there.size && isSameTime(record.destinationModified, there.modified, grain);
}

bool isProofEnough(const FileRecord& record, const PlanWishes& wishes) {
  if (wishes.recheck || (record.state == FileRecord::State::copied && wishes.readBack)) return false;
  return wishes.algorithm == 0 || record.digest.algorithm == wishes.algorithm;
}

// Of different sizes it is known without a look that they differ.
Step stepForUnknownFile(const ItemFacts& onCard, const ItemFacts& there, const PlanWishes& wishes) {
  return wishes.replace && onCard.size != there.size ? Step::replace : Step::compare;
}

// True when the file can be what an interrupted run wrote: nobody has changed it since that run was last at work, its time is the
// card's or that of the writing, and it is no larger than it would be.
bool isLeftByUs(const FileRecord& record, const ItemFacts& onCard, const ItemFacts& there, int64_t grain) {
  constexpr int64_t second = 1'000'000'000;      // nanoseconds
  constexpr int64_t lastsLonger = 120 * second;  // signs of life are half a minute apart
  constexpr int64_t coarsest = 2 * second;       // grain of times
  const bool isOurTime =
      isSameTime(there.modified, onCard.modified, grain) || there.modified >= record.begun - coarsest;
  return isAsOnCard(record, onCard) && there.size <= onCard.size && isOurTime &&
         there.changed <= record.destinationModified + lastsLonger;
}

// What an interrupted run left is whole, or a loss of power made it hollow: then it is done again.
Decision decideLeftFile(const ItemFacts& onCard, const ItemFacts& there) {
  return {.step = there.size == onCard.size ? Step::compareOurs : Step::replace};
}

// Of a regular file that stands there and is not the card's own.
Decision decideStandingFile(const ItemFacts& onCard, const ItemFacts& there, const FileRecord& record, int64_t grain,
                            const PlanWishes& wishes) {
  const bool isBegun = record.state == FileRecord::State::begun;
  if (isBegun && isLeftByUs(record, onCard, there, grain)) return decideLeftFile(onCard, there);
  if (isBegun || record.state == FileRecord::State::none) return {.step = stepForUnknownFile(onCard, there, wishes)};
  if (!isAsOnCard(record, onCard)) {
    return wishes.replace ? Decision{.step = Step::replace} : obstacle(Obstacle::changedSinceProved);
  }
  if (!isAsAtDestination(record, there, grain)) return {.step = stepForUnknownFile(onCard, there, wishes)};
  return {.step = isProofEnough(record, wishes) ? Step::proved : Step::compare};
}

uint64_t roundedUp(uint64_t bytes, uint64_t block) {
  return block == 0 ? bytes : (bytes + block - 1) / block * block;
}

// Adds up what one destination has to have room for.
class RoomCounter {
 public:
  explicit RoomCounter(uint64_t block) : _block(block) {}

  // A file, folder or link where nothing stands yet. Folders and links take a block too.
  void addNew(uint64_t bytes) {
    _room.bytes += roundedUp(bytes, _block);
    ++_room.inodes;
  }
  void addNewItem() { addNew(1); }

  // The files of one job that replaces: the old ones make room when the new ones are whole.
  //   growth   of all of its files that get larger
  void addReplacing(uint64_t bytes, uint64_t growth, uint64_t files) {
    _room.bytes += growth;
    _largestBytes = std::max(_largestBytes, bytes);
    _largestFiles = std::max(_largestFiles, files);
  }
  [[nodiscard]] uint64_t rounded(uint64_t bytes) const { return roundedUp(bytes, _block); }

  [[nodiscard]] RoomNeeded room() const {
    return {.bytes = _room.bytes + _largestBytes, .inodes = _room.inodes + _largestFiles};
  }

 private:
  uint64_t _block;
  RoomNeeded _room;
  uint64_t _largestBytes = 0;
  uint64_t _largestFiles = 0;
};

class Planner {
 public:
  Planner(const Listing& card, std::span<const PlannedDestination> destinations, const PlanWishes& wishes)
      : _card(card),
        _destinations(destinations),
        _wishes(wishes),
        _work(card.entries.size()),
        _blocked(card.entries.size()) {
    const std::size_t entries = card.entries.size();
    _plan.proved.resize(entries);
    _plan.folders.resize(entries);
    _plan.closed.resize(entries);
    _plan.links.resize(entries);
    collectCardsFiles();
    findClashes();
  }

  Plan plan() {
    for (EntryIndex index = 0; index < _card.entries.size(); ++index) decide(index);
    for (EntryIndex first = 0; first < _card.entries.size();) {
      const EntryIndex end = _card.endOfFolder(first);
      addJobsOfFolder(first, end);
      first = end;
    }
    _plan.jobs.insert(_plan.jobs.end(), _smallJobs.begin(), _smallJobs.end());
    countRoom();
    openFoldersToWriteIn();
    return std::move(_plan);
  }

 private:
  void collectCardsFiles() {
    for (const Entry& entry : _card.entries) {
      const bool isKnown = entry.facts.identity != FileIdentity{};
      if (entry.facts.kind == ItemKind::file && isKnown) _cardsFiles.insert(entry.facts.identity);
    }
    _cardsFiles.seal();
  }

  void findClashes() {
    const NameClashes clashes = findNameClashes(_card);
    _needsAlias = filesThatNeedAliases(_card, clashes);
    if (clashes.groups.empty()) return;
    for (const PlannedDestination& destination : _destinations) {
      std::vector<bool> shared = entriesTakenForOne(clashes, destination.listing);
      if (destination.volume.names != platform::NameFolding::unknown) {
        const std::vector<bool> known = entriesOfOneName(_card, clashes, destination.volume.names);
        std::transform(shared.begin(), shared.end(), known.begin(), shared.begin(), std::logical_or<>());
      }
      _sharesName.push_back(std::move(shared));
    }
  }

  [[nodiscard]] bool sharesName(EntryIndex index, std::size_t destination) const {
    return !_sharesName.empty() && _sharesName[destination][index];
  }

  void decide(EntryIndex index) {
    const EntryIndex parent = _card.entries[index].parent;
    if (_card.entries[index].facts.kind == ItemKind::other) return;
    std::array<DestinationSet, static_cast<std::size_t>(Obstacle::insideObstacle) + 1> obstacles{};
    for (std::size_t destination = 0; destination < _destinations.size(); ++destination) {
      const bool isInside = parent != Entry::root && _blocked[parent].contains(destination);
      const Decision decision = isInside ? obstacle(Obstacle::insideObstacle) : decisionAt(index, destination);
      if (decision.obstacle) {
        obstacles[static_cast<std::size_t>(*decision.obstacle)].insert(destination);
      } else {
        take(decision.step, index, destination);
      }
    }
    addFailures(index, obstacles);
  }

  [[nodiscard]] Decision decisionAt(EntryIndex index, std::size_t destination) const {
    const Entry& entry = _card.entries[index];
    const PlannedDestination& place = _destinations[destination];
    const ItemFacts& there = place.listing[index];
    if (sharesName(index, destination)) return obstacle(Obstacle::sameNameTwice);
    if (entry.facts.kind == ItemKind::folder) return decideFolder(there);
    if (entry.facts.kind == ItemKind::link) {
      return decideLink(there, targetIn(_card.linkTargets, index), targetIn(place.linkTargets, index));
    }
    return decideFile(index, place);
  }

  static const std::string* targetIn(const std::map<EntryIndex, std::string>& targets, EntryIndex index) {
    const auto found = targets.find(index);
    return found == targets.end() ? nullptr : &found->second;
  }

  [[nodiscard]] Decision decideFile(EntryIndex index, const PlannedDestination& place) const {
    static const FileRecord nothingKnown{};
    const ItemFacts& there = place.listing[index];
    if (there.kind == ItemKind::absent) return {.step = Step::copy};
    if (there.kind != ItemKind::file) return obstacle(obstacleOf(there));
    if (_cardsFiles.contains(there.identity)) return obstacle(Obstacle::cardsOwnFile);
    if (place.continued.contains(index)) return {.step = Step::proved};
    const FileRecord& record = index < place.records.size() ? place.records[index] : nothingKnown;
    return decideStandingFile(_card.entries[index].facts, there, record, place.volume.timeGrain, _wishes);
  }

  void take(Step step, EntryIndex index, std::size_t destination) {
    if (step == Step::proved) _plan.proved[index].insert(destination);
    if (step == Step::makeFolder) _plan.folders[index].insert(destination);
    if (step == Step::makeLink) _plan.links[index].insert(destination);
    if (step == Step::copy) _work[index].copy.insert(destination);
    if (step == Step::replace) _work[index].replace.insert(destination);
    if (step == Step::compare) _work[index].compare.insert(destination);
    if (step == Step::compareOurs) _work[index].compareOurs.insert(destination);
  }

  template <typename Obstacles>
  void addFailures(EntryIndex index, const Obstacles& obstacles) {
    for (std::size_t kind = 0; kind < obstacles.size(); ++kind) {
      if (obstacles[kind].empty()) continue;
      _plan.failures.push_back(
          {.entry = index, .destinations = obstacles[kind], .obstacle = static_cast<Obstacle>(kind)});
      _blocked[index] = _blocked[index].with(obstacles[kind]);
    }
  }

  void addJobsOfFolder(EntryIndex first, EntryIndex end) {
    FoundSequences found = findSequences(_card, first, end, frameChoice());
    std::ranges::move(found.warnings, std::back_inserter(_plan.warnings));
    // For each entry of the folder the sequence that it belongs to.
    std::vector<uint32_t> sequenceOf(end - first, Job::noSequence);
    for (uint32_t number = 0; number < found.sequences.size(); ++number) {
      for (const EntryIndex frame : found.sequences[number].frames) sequenceOf[frame - first] = number;
    }
    for (EntryIndex index = first; index < end; ++index) {
      const uint32_t number = sequenceOf[index - first];
      if (number == Job::noSequence) {
        addJobsOf(index);
      } else if (found.sequences[number].frames.front() == index) {
        addJobsOf(found.sequences[number]);
      }
    }
  }

  [[nodiscard]] FrameChoice frameChoice() const {
    return {.isSmallEnough = [this](EntryIndex index) { return _card.entries[index].facts.size < largestFrame; },
            .canBeFrame = [this](EntryIndex index) { return !_needsAlias[index] && isWritten(_work[index]); },
            .isSameWork =
                [this](EntryIndex one, EntryIndex other) {
                  return _work[one].copy == _work[other].copy && _work[one].replace == _work[other].replace;
                }};
  }

  static bool isWritten(const Work& work) { return !work.copy.with(work.replace).empty(); }

  void addJobsOf(const FoundSequence& sequence) {
    const auto number = static_cast<uint32_t>(_plan.sequences.size());
    _plan.sequences.push_back(sequence.identifier);
    addCopies(sequence.frames, number);
    for (const EntryIndex frame : sequence.frames) addComparison(frame);
  }

  void addJobsOf(EntryIndex index) {
    addCopies(std::span(&index, 1), Job::noSequence);
    addComparison(index);
  }

  void addCopies(std::span<const EntryIndex> files, uint32_t sequence) {
    const Work& work = _work[files.front()];
    addJob(files, {.sequence = sequence, .destinations = work.copy});
    addJob(files, {.replaces = true, .sequence = sequence, .destinations = work.replace});
  }

  void addComparison(EntryIndex index) {
    addJob(std::span(&index, 1),
           {.kind = JobKind::compare, .replaces = _wishes.replace, .destinations = _work[index].compare});
    addJob(std::span(&index, 1),
           {.kind = JobKind::compare, .replaces = true, .destinations = _work[index].compareOurs});
  }

  // Nothing to do at no destination is no job.
  void addJob(std::span<const EntryIndex> files, Job job) {
    if (job.destinations.empty()) return;
    job.usesAlias = _needsAlias[files.front()];
    job.first = static_cast<uint32_t>(_plan.files.size());
    job.count = static_cast<uint32_t>(files.size());
    _plan.files.insert(_plan.files.end(), files.begin(), files.end());
    const uint64_t bytes = bytesOf(files);
    _plan.bytesToDo += bytes;
    (bytes > largestSmallFile ? _plan.jobs : _smallJobs).push_back(job);
  }

  [[nodiscard]] uint64_t bytesOf(std::span<const EntryIndex> files) const {
    return std::accumulate(files.begin(), files.end(), uint64_t{0},
                           [this](uint64_t sum, EntryIndex index) { return sum + _card.entries[index].facts.size; });
  }

  // Folders have the modes of the card, and on some cards no folder is to be written in.
  void openFoldersToWriteIn() {
    for (const Job& job : _plan.jobs) {
      if (job.kind == JobKind::copy || job.replaces) openFolderAbove(_plan.files[job.first], job.destinations);
    }
    for (EntryIndex index = 0; index < _card.entries.size(); ++index) {
      const DestinationSet toMake = _plan.folders[index].with(_plan.links[index]);
      if (!toMake.empty()) openFolderAbove(index, toMake);
    }
  }

  void openFolderAbove(EntryIndex index, DestinationSet destinations) {
    constexpr uint32_t writeAndSearch = 0300;
    const EntryIndex parent = _card.entries[index].parent;
    if (parent == Entry::root) return;
    for (std::size_t destination = 0; destination < _destinations.size(); ++destination) {
      const ItemFacts& there = _destinations[destination].listing[parent];
      const bool isClosed = there.kind == ItemKind::folder && (there.mode & writeAndSearch) != writeAndSearch;
      if (isClosed && destinations.contains(destination)) _plan.closed[parent].insert(destination);
    }
  }

  void countRoom() {
    for (std::size_t destination = 0; destination < _destinations.size(); ++destination) {
      RoomCounter counter(_destinations[destination].volume.blockSize);
      for (EntryIndex index = 0; index < _card.entries.size(); ++index) {
        if (_plan.folders[index].contains(destination) || _plan.links[index].contains(destination)) {
          counter.addNewItem();
        }
      }
      for (const Job& job : _plan.jobs) {
        if (job.destinations.contains(destination)) countRoomOf(job, destination, counter);
      }
      _plan.room.push_back(counter.room());
    }
  }

  void countRoomOf(const Job& job, std::size_t destination, RoomCounter& counter) const {
    uint64_t bytes = 0;
    uint64_t growth = 0;
    for (const EntryIndex index : _plan.filesOf(job)) {
      const uint64_t size = counter.rounded(_card.entries[index].facts.size);
      const uint64_t sizeThere = counter.rounded(_destinations[destination].listing[index].size);
      if (job.kind == JobKind::copy && !job.replaces) counter.addNew(size);
      bytes += size;
      growth += size > sizeThere ? size - sizeThere : 0;
    }
    if (job.replaces) counter.addReplacing(bytes, growth, job.count);
  }

  const Listing& _card;
  std::span<const PlannedDestination> _destinations;
  const PlanWishes& _wishes;
  Plan _plan;
  std::vector<Job> _smallJobs;
  std::vector<Work> _work;               // of each entry
  std::vector<DestinationSet> _blocked;  // of each entry: where it can't be had
  FileIdentities _cardsFiles;
  std::vector<bool> _needsAlias;
  std::vector<std::vector<bool>> _sharesName;  // of each destination; empty where no names clash at all
};

}  // namespace

bool isProofOf(const FileRecord& record, const ItemFacts& onCard) {
  return record.digest.algorithm != 0 && isAsOnCard(record, onCard);
}

void forgetWhatDisagrees(const Listing& card, std::span<PlannedDestination> destinations) {
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    std::map<uint32_t, FileDigest> known;  // by algorithm
    bool isDoubtful = false;
    for (const PlannedDestination& destination : destinations) {
      if (index >= destination.records.size()) continue;
      const FileRecord& record = destination.records[index];
      if (!isProofOf(record, card.entries[index].facts)) continue;
      isDoubtful |= known.try_emplace(record.digest.algorithm, record.digest).first->second != record.digest;
    }
    if (!isDoubtful) continue;
    for (PlannedDestination& destination : destinations) destination.records[index] = {};
  }
}

Plan makePlan(const Listing& card, std::span<const PlannedDestination> destinations, const PlanWishes& wishes) {
  return Planner(card, destinations, wishes).plan();
}

bool needsAlias(std::string_view name) {
  constexpr std::size_t longest = 247;  // bytes, with the temporary extension 255
  const bool hasControls = std::ranges::any_of(name, [](char c) { return (c >= '\0' && c < ' ') || c == '\x7f'; });
  return hasControls || name.size() > longest || name.ends_with(".kdxcopy") || !platform::isUTF8(name);
}

}  // namespace kdxoffload
