#include "KDXFileTools/kdxoffload/Coordinator.h"

#include <algorithm>
#include <asio.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <tuple>
#include <utility>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "KDXFileTools/kdxoffload/ContinuedChains.h"
#include "KDXFileTools/kdxoffload/Displays.h"
#include "KDXFileTools/kdxoffload/ExitStatus.h"
#include "KDXFileTools/kdxoffload/Lister.h"
#include "KDXFileTools/kdxoffload/Manifests.h"
#include "KDXFileTools/kdxoffload/Plan.h"
#include "KDXFileTools/kdxoffload/Preflight.h"
#include "KDXFileTools/kdxoffload/Run.h"
#include "KDXFileTools/kdxoffload/Verdict.h"
#include "KDXFileTools/kdxoffload/Watched.h"
#include "platform/Place.h"

namespace kdxoffload {

namespace {

using Clock = std::chrono::steady_clock;

int64_t secondsSince1970() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The signals that an offload answers to, for as long as it lasts.
class Signals {
 public:
  Signals(asio::io_context& context, std::function<void(int)> stop, std::function<void()> tell)
      : _set(context, SIGINT, SIGTERM, SIGHUP), _stop(std::move(stop)), _tell(std::move(tell)) {
    _set.add(SIGUSR1);
    wait();
  }

  // From now on nobody waits for a signal, so that the io_context can come to its end.
  void cancel() { _set.cancel(); }

  void wait() {
    _set.async_wait([this](std::error_code error, int number) {
      if (error) return;
      take(number);
      wait();
    });
  }

 private:
  void take(int number) {
    if (number == SIGUSR1) {
      _tell();
      return;
    }
    if (_stopped) std::_Exit(ExitStatus::signalled + number);
    _stopped = true;
    _stop(number);
  }

  asio::signal_set _set;
  std::function<void(int)> _stop;
  std::function<void()> _tell;
  bool _stopped = false;
};

struct DestinationAtTheEnd {
  DestinationListing listing{};
  platform::Volume volume{};
};

// One offload, step by step. Each step returns false when it goes no further: what there is to say has been said then, but
// for `Finished`.
class Offload {
 public:
  Offload(const CommandLine& line, Listener& listener)
      : _line(line),
        _listener(listener),
        _signals(
            _context, [this](int number) { stop(number); }, [this] { tellState(); }) {}

  int perform() {
    const bool isReady = lookAtPlaces() && listCard() && openCatalogue() && makePlan() && prepareDestinations();
    if (!isReady) return endEarly();
    run();
    return conclude();
  }

 private:
  void post(const Event& event) { _listener.take(event); }
  [[nodiscard]] double seconds() const { return std::chrono::duration<double>(Clock::now() - _started).count(); }

  void stop(int number) {
    _signal = number;
    if (_run) _run->stop(number);
  }

  void tellState() {
    if (_run) {
      _run->tellState();
    } else {
      post(Looking{.text = _looking, .isAsked = true});
    }
  }

  // What goes on while no job does.
  void look(const std::string& text) {
    _looking = text;
    post(Looking{.text = text});
  }

  // While a tree is listed nobody else looks for signals.
  [[nodiscard]] Stopped stopped() {
    return [this] {
      _context.restart();
      _context.poll();
      return _signal.has_value();
    };
  }

  bool refuse(const std::string& reason) {
    post(ErrorReported{.text = reason, .path = std::nullopt});
    return false;
  }

  bool accept(const Preflight& preflight) {
    for (const std::string& reason : preflight.refusals) refuse(reason);
    for (const std::string& warning : preflight.warnings) {
      if (std::ranges::find(_warnings, warning) != _warnings.end()) continue;
      _warnings.push_back(warning);
      post(Warned{.text = warning, .path = std::nullopt});
    }
    return preflight.refusals.empty();
  }

  bool lookAtPlaces() {
    _facts.card = placeFacts(_line.card);
    for (const std::string& destination : _line.destinations) _facts.destinations.push_back(placeFacts(destination));
    waitForLocks();
    _facts.partial = _line.partial;
    if (const auto path = cataloguePath()) _facts.catalogueFolders = foldersOfCatalogue(*path);
    return accept(preflight(_facts)) && lockDestinations();
  }

  [[nodiscard]] std::optional<std::string> cataloguePath() const {
    return _line.catalogue ? _line.catalogue : Catalogue::defaultPath();
  }

  // The workers of a run that was killed a moment ago have its locks until they are gone too.
  void waitForLocks() {
    constexpr std::chrono::milliseconds betweenLooks{50};
    const Clock::time_point latest = Clock::now() + std::chrono::seconds(2);
    for (PlaceFacts& place : _facts.destinations) {
      while (place.isLockedByOther && Clock::now() < latest) {
        std::this_thread::sleep_for(betweenLooks);
        place.isLockedByOther = platform::isFolderLocked(place.realPath);
      }
    }
  }

  // Those that are there. One that is still to be made is locked when it is.
  bool lockDestinations() {
    for (const PlaceFacts& place : _facts.destinations) {
      if (place.exists && !lock(place)) return false;
    }
    return true;
  }

  bool lock(const PlaceFacts& place) {
    std::optional<platform::Folder> folder = platform::Folder::open(place.realPath, nullptr);
    if (!folder) return refuse("the destination can't be opened: " + place.path);
    std::optional<platform::Error> error;
    if (!folder->lock(&error) && error->code == EWOULDBLOCK) {
      return refuse("another offload is at work on the destination: " + place.path);
    }
    _locks.push_back(std::move(*folder));
    return true;
  }

  bool listCard() {
    look("Listing the card...");
    std::optional<platform::Error> error;
    const std::optional<platform::Folder> card = platform::Folder::open(_facts.card.realPath, &error);
    if (!card) return refuse("the card can't be opened: " + _facts.card.path);
    _card = std::make_shared<const Listing>(listTree(*card, ExcludePatterns(_line.excluded), stopped()));
    _facts.unlisted = _card->unlisted;
    return !_signal && accept(preflight(_facts));
  }

  bool openCatalogue() {
    const std::optional<std::string> path = cataloguePath();
    _catalogue.emplace(Catalogue::open(path.value_or("")));
    if (const std::optional<std::string>& problem = _catalogue->problem()) {
      _warnings.push_back("nothing is remembered for the next time: " + *problem);
      post(Warned{.text = _warnings.back(), .path = path});
    }
    return true;
  }

  bool makePlan() {
    look("Looking what the destinations hold...");
    std::vector<PlannedDestination> destinations;
    for (const PlaceFacts& place : _facts.destinations) {
      destinations.push_back(plannedDestination(place));
    }
    if (_signal) return false;
    forgetWhatDisagrees(*_card, destinations);
    _plan = kdxoffload::makePlan(
        *_card, destinations,
        {.readBack = _line.readBack, .recheck = _line.recheck, .replace = _line.replace, .algorithm = _line.algorithm});
    keepKnownDigests(destinations);
    keepFolders(destinations);
    for (PlannedDestination& destination : destinations) {
      _runSettings.foundBefore.push_back(std::move(destination.listing));
      _continued.push_back(std::move(destination.continued));
    }
    _facts.room = _plan.room;
    return accept(preflight(_facts));
  }

  [[nodiscard]] PlannedDestination plannedDestination(const PlaceFacts& place) {
    PlannedDestination destination{.records = _catalogue->recordsOf(place.realPath, *_card), .volume = place.volume};
    const std::optional<platform::Folder> root = platform::Folder::open(place.realPath, nullptr);
    destination.listing = root ? listDestination(*root, *_card, stopped()) : DestinationListing(_card->entries.size());
    if (root) destination.linkTargets = linkTargetsAt(*root, *_card, destination.listing);
    const std::optional<platform::Folder> cardRoot = platform::Folder::open(_facts.card.realPath, nullptr);
    if (root && cardRoot) destination.continued = continuedChains(*cardRoot, *_card, *root, destination.listing);
    return destination;
  }

  void keepKnownDigests(const std::vector<PlannedDestination>& destinations) {
    _runSettings.knownDigests.resize(_card->entries.size());
    _runSettings.knownProofs.resize(_card->entries.size());
    _onlyCopied.resize(_card->entries.size());
    for (std::size_t position = 0; position < destinations.size(); ++position) {
      for (std::size_t index = 0; index < _card->entries.size(); ++index) {
        const FileRecord& record = destinations[position].records[index];
        if (!isProofOf(record, _card->entries[index].facts)) continue;
        _runSettings.knownDigests[index] = record.digest;
        _runSettings.knownProofs[index].insert(position);
        if (record.state == FileRecord::State::copied) _onlyCopied[index].insert(position);
      }
    }
  }

  void keepFolders(const std::vector<PlannedDestination>& destinations) {
    _runSettings.foldersToKeep.resize(_card->entries.size());
    for (EntryIndex index = 0; index < _card->entries.size(); ++index) {
      const platform::ItemFacts& wanted = _card->entries[index].facts;
      if (wanted.kind != platform::ItemKind::folder) continue;
      for (std::size_t position = 0; position < destinations.size(); ++position) {
        const platform::ItemFacts& found = destinations[position].listing[index];
        const bool isKept = found.mode == wanted.mode && found.modified == wanted.modified;
        if (found.kind == platform::ItemKind::folder && !isKept) _runSettings.foldersToKeep[index].insert(position);
      }
    }
  }

  // The first thing that is written.
  bool prepareDestinations() {
    for (const PlaceFacts& place : _facts.destinations) {
      if (place.exists) continue;
      std::optional<platform::Error> error;
      if (!platform::makeOneFolder(place.realPath, &error)) {
        return refuse("the destination can't be made: " + error->description.value_or(place.path));
      }
      if (!lock(place)) return false;
    }
    return true;
  }

  // A name that the card does not use, the same for every run of this card.
  [[nodiscard]] std::string privateFolder() const {
    std::string name = ".kdxoffload-work";
    const auto isTaken = [this](const std::string& wanted) {
      return std::ranges::any_of(_card->entries, [&wanted](const Entry& entry) {
        return entry.parent == Entry::root && entry.name == wanted;
      });
    };
    while (isTaken(name)) name += '_';
    return name;
  }

  [[nodiscard]] std::vector<std::string> destinationRoots() const {
    std::vector<std::string> paths;
    for (const PlaceFacts& place : _facts.destinations) paths.push_back(place.realPath);
    return paths;
  }

  void run() {
    RunSettings& settings = _runSettings;
    settings.setup = {.card = _facts.card.realPath,
                      .algorithm = _line.algorithm,
                      .readBack = _line.readBack,
                      .privateFolder = privateFolder()};
    settings.setup.destinations = destinationRoots();
    settings.hasLeftovers = std::ranges::any_of(settings.setup.destinations, [&settings](const std::string& path) {
      return platform::fileExistsAtPath(path + '/' + settings.setup.privateFolder);
    });
    settings.jobs = _line.jobs;
    settings.stallSeconds = static_cast<double>(_line.stallSeconds);
    for (const platform::Folder& folder : _locks) settings.inherited.push_back(folder.descriptor());
    settings.destinationPaths = _line.destinations;
    settings.cardPath = _line.card;
    _startedAt = secondsSince1970();
    findKilledRuns();
    _catalogue->startOffload(_facts.card.realPath, settings.setup.destinations, _startedAt);
    const bool hadCatalogue = !_catalogue->problem();
    // Moved, since it has a digest for every entry of the card.
    _run = std::make_unique<Run>(_context, std::move(settings), *_card, _plan, *_catalogue, _listener);
    _context.restart();
    _run->start([this] { _signals.cancel(); });
    if (_signal) _run->stop(*_signal);
    _context.run();
    if (hadCatalogue && _catalogue->problem()) {
      _warnings.push_back("not all of this is remembered for the next time: " + *_catalogue->problem());
      post(Warned{.text = _warnings.back(), .path = std::nullopt});
    }
  }

  // What a run that was killed has read is in no list yet.
  void findKilledRuns() {
    _followsKilledRun.resize(_facts.destinations.size());
    for (const OffloadRecord& record : _catalogue->history()) {
      if (record.card != _facts.card.realPath) continue;
      for (std::size_t position = 0; position < _facts.destinations.size(); ++position) {
        const std::string& path = _facts.destinations[position].realPath;
        if (std::ranges::find(record.destinations, path) == record.destinations.end()) continue;
        _followsKilledRun[position] = !record.ended;
      }
    }
  }

  // A file system that does not answer has nothing to show for itself, but the verdict is still given.
  template <typename Result>
  std::optional<Result> lookAgain(std::function<Result(const Stopped& goesOn)> look, double patience = 1) {
    const auto asStopped = [look = std::move(look)](const std::function<void()>& goesOn) {
      return look([&goesOn] {
        goesOn();
        return false;
      });
    };
    return watched<Result>(patience * static_cast<double>(_line.stallSeconds), asStopped,
                           [answer = stopped()] { std::ignore = answer(); });
  }

  [[nodiscard]] Listing cardAtTheEnd() {
    std::function<Listing(const Stopped&)> look = [path = _facts.card.realPath,
                                                   excluded = _line.excluded](const Stopped& goesOn) {
      const std::optional<platform::Folder> root = platform::Folder::open(path, nullptr);
      return root ? listTree(*root, ExcludePatterns(excluded), goesOn) : Listing{};
    };
    return lookAgain(std::move(look)).value_or(Listing{});
  }

  [[nodiscard]] DestinationAtTheEnd destinationAtTheEnd(const std::string& path) {
    std::function<DestinationAtTheEnd(const Stopped&)> look = [path, card = _card](const Stopped& goesOn) {
      const std::optional<platform::Folder> root = platform::Folder::open(path, nullptr);
      return DestinationAtTheEnd{
          .listing = root ? listDestination(*root, *card, goesOn) : DestinationListing(card->entries.size()),
          .volume = platform::volumeOf(path)};
    };
    DestinationAtTheEnd nothing{.listing = DestinationListing(_card->entries.size())};
    return lookAgain(std::move(look)).value_or(std::move(nothing));
  }

  int conclude() {
    // Half a listing would look like a card that lost its files: a signal is only noticed, a second one ends the process.
    _signals.wait();
    look("Comparing the card and the destinations once more...");
    const Listing after = cardAtTheEnd();
    std::vector<DestinationListing> destinations;
    std::vector<platform::Volume> volumes;
    for (const PlaceFacts& place : _facts.destinations) {
      DestinationAtTheEnd found = destinationAtTheEnd(place.realPath);
      destinations.push_back(std::move(found.listing));
      volumes.push_back(found.volume);
    }
    const VerdictFacts facts{.before = *_card,
                             .after = after,
                             .destinations = destinations,
                             .plan = _plan,
                             .results = _run->results(),
                             .destinationPaths = _line.destinations,
                             .volumes = volumes,
                             .continued = _continued,
                             .warnings = _warnings,
                             .readBack = _line.readBack,
                             .signal = _signal};
    Verdict verdict = verdictOf(facts);
    if (_line.hashList || _line.checksums) leaveManifests(facts, verdict);
    remember(verdict);
    finish(verdict, volumes, false);
    return verdict.exitStatus;
  }

  // What others can check the proof with. It stands beside the verdict, and does not change it.
  void leaveManifests(const VerdictFacts& facts, Verdict& verdict) {
    const std::vector<DestinationSet> proved = provedAtTheEnd(facts);
    std::set<std::string> leftOut;
    std::set<std::string> notInChecksums;
    for (std::size_t position = 0; position < facts.destinations.size(); ++position) {
      ManifestFacts manifest = manifestFacts(facts, proved, position);
      if (manifest.files.empty()) continue;
      const ManifestReport report = manifestsWritten(std::move(manifest), position);
      verdict.remarks.insert(verdict.remarks.end(), report.warnings.begin(), report.warnings.end());
      leftOut.insert(report.leftOut.begin(), report.leftOut.end());
      notInChecksums.insert(report.notInChecksums.begin(), report.notInChecksums.end());
    }
    nameFiles("Proved, but in no media hash list, which can't hold such names", leftOut, verdict);
    nameFiles("Proved, but in no checksum list, which can't hold such names", notInChecksums, verdict);
  }

  [[nodiscard]] ManifestReport manifestsWritten(ManifestFacts manifest, std::size_t position) {
    // As for a flush: there is little to see of it while it is at work.
    constexpr double patience = 10;
    look("Writing the manifests...");
    std::function<ManifestReport(const Stopped&)> write = [manifest = std::move(manifest)](const Stopped& goesOn) {
      return writeManifests(manifest, [&goesOn] { std::ignore = goesOn(); });
    };
    ManifestReport nothing{.warnings = {_line.destinations[position] + " does not answer: it has no manifest"}};
    return lookAgain(std::move(write), patience).value_or(std::move(nothing));
  }

  [[nodiscard]] ManifestFacts manifestFacts(const VerdictFacts& facts, const std::vector<DestinationSet>& proved,
                                            std::size_t position) const {
    ManifestFacts manifest{.card = _card,
                           .destination = _facts.destinations[position].realPath,
                           .shownDestination = _line.destinations[position],
                           .there = facts.destinations[position],
                           .isProved = std::vector<bool>(_card->entries.size()),
                           .algorithm = _line.algorithm,
                           .started = _startedAt * 1'000'000'000,
                           .wantsHashList = _line.hashList,
                           .wantsChecksums = _line.checksums,
                           .followsKilledRun = _followsKilledRun[position]};
    for (EntryIndex index = 0; index < _card->entries.size(); ++index) {
      manifest.isProved[index] = proved[index].contains(position);
      if (const auto file = provedFile(facts, index, position)) manifest.files.push_back(*file);
    }
    std::erase_if(manifest.files, [&manifest](const ProvedFile& file) { return !manifest.isProved[file.entry]; });
    return manifest;
  }

  // None where nothing was read back of what stands there.
  [[nodiscard]] std::optional<ProvedFile> provedFile(const VerdictFacts& facts, EntryIndex index,
                                                     std::size_t position) const {
    const Proof proof = facts.results.proof(index, position);
    const bool isOfThisRun = proof == Proof::copied || proof == Proof::adopted;
    const bool isOfEarlierRun = proof == Proof::before && !_onlyCopied[index].contains(position);
    const FileDigest& digest = facts.results.digests[index];
    const bool isFile = _card->entries[index].facts.kind == platform::ItemKind::file;
    if (!isFile || digest.algorithm != _line.algorithm || !(isOfThisRun || isOfEarlierRun)) return std::nullopt;
    // An earlier run set mode and time right after its proof.
    const int64_t before = facts.destinations[position][index].changed;
    return ProvedFile{.entry = index,
                      .digest = digest,
                      .read = isOfThisRun ? facts.results.read[index] : before,
                      .isOfThisRun = isOfThisRun};
  }

  // The first of them, and the number of the others.
  static void nameFiles(const std::string& what, const std::set<std::string>& paths, Verdict& verdict) {
    constexpr std::size_t most = 10;
    if (paths.empty()) return;
    std::string names;
    std::size_t count = 0;
    for (const std::string& path : paths) {
      if (++count > most) break;
      names += (names.empty() ? "" : ", ") + path;
    }
    if (paths.size() > most) names += " and " + shownCount(paths.size() - most) + " more";
    verdict.remarks.push_back(what + ": " + names + ".");
  }

  void remember(const Verdict& verdict) {
    OffloadRecord record{.card = _facts.card.realPath,
                         .destinations = destinationRoots(),
                         .started = _startedAt,
                         .ended = secondsSince1970(),
                         .exitStatus = verdict.exitStatus,
                         .files = verdict.files,
                         .proved = verdict.proved,
                         .bytes = verdict.bytes,
                         .verdict = verdict.line};
    _catalogue->endOffload(record);
  }

  void finish(const Verdict& verdict, const std::vector<platform::Volume>& volumes, bool wasRefused) {
    Finished finished{.verdict = verdict, .seconds = seconds(), .wasRefused = wasRefused};
    for (std::size_t position = 0; position < _line.destinations.size(); ++position) {
      const platform::Volume volume = position < volumes.size() ? volumes[position] : platform::Volume{};
      finished.destinations.push_back(
          {.path = _line.destinations[position], .fileSystem = volume.fileSystem, .readBack = volume.readBack});
    }
    post(finished);
  }

  // Nothing was copied: there was a reason not to start, or a signal came first.
  int endEarly() {
    Verdict verdict;
    verdict.exitStatus = _signal ? ExitStatus::signalled + *_signal : ExitStatus::nothingDone;
    verdict.line = "DO NOT ERASE: nothing was done.";
    std::vector<platform::Volume> volumes;
    for (const PlaceFacts& place : _facts.destinations) volumes.push_back(place.volume);
    finish(verdict, volumes, true);
    return verdict.exitStatus;
  }

  const CommandLine& _line;
  Listener& _listener;
  asio::io_context _context;
  Signals _signals;
  std::optional<int> _signal;
  std::string _looking = "Starting...";
  const Clock::time_point _started = Clock::now();
  int64_t _startedAt = 0;  // seconds since 1970
  PreflightFacts _facts;
  std::vector<std::string> _warnings;
  std::deque<platform::Folder> _locks;  // of the destinations
  // Shared with a look that may outlive the offload.
  std::shared_ptr<const Listing> _card = std::make_shared<Listing>();
  std::optional<Catalogue> _catalogue;
  Plan _plan;
  std::vector<std::set<EntryIndex>> _continued;  // at each destination (see continuedChains)
  std::vector<DestinationSet> _onlyCopied;       // for each entry: where an earlier run did not read it back
  std::vector<bool> _followsKilledRun;           // for each destination
  RunSettings _runSettings;
  std::unique_ptr<Run> _run;
};

}  // namespace

int offload(const CommandLine& line, Listener& listener) {
  return Offload(line, listener).perform();
}

int runOffload(const CommandLine& line) {
  return withDisplay(line, [&line](OutputStream&, Listener& display) { return offload(line, display); });
}

}  // namespace kdxoffload
