#include "KDXFileTools/kdxoffload/StatusAndHistory.h"

#include <chrono>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "KDXFileTools/kdxoffload/ContinuedChains.h"
#include "KDXFileTools/kdxoffload/Displays.h"
#include "KDXFileTools/kdxoffload/ExcludePatterns.h"
#include "KDXFileTools/kdxoffload/ExitStatus.h"
#include "KDXFileTools/kdxoffload/History.h"
#include "KDXFileTools/kdxoffload/Lister.h"
#include "KDXFileTools/kdxoffload/Preflight.h"
#include "KDXFileTools/kdxoffload/Status.h"

namespace kdxoffload {

namespace {

using Clock = std::chrono::steady_clock;

Catalogue openedToLook(const CommandLine& line) {
  const std::optional<std::string> path = line.catalogue ? line.catalogue : Catalogue::defaultPath();
  return Catalogue::openForReading(path.value_or(""));
}

bool never() {
  return false;
}

// One look at the card and the destinations.
class StatusReport {
 public:
  StatusReport(const CommandLine& line, Listener& listener)
      : _line(line), _listener(listener), _catalogue(openedToLook(line)) {}

  int tell() {
    const PlaceFacts place = placeFacts(_line.card);
    const auto root = platform::Folder::open(place.realPath, nullptr);
    if (!root) return refuse("the card is no folder that can be opened", _line.card);
    const Listing card = listTree(*root, ExcludePatterns(_line.excluded), never);
    findDestinations(place.realPath);
    for (const std::string& path : _realPaths) look(path, *root, card);
    if (const auto& problem = _catalogue.problem()) return refuse(*problem, std::nullopt);
    forgetWhatDisagrees(card, _destinations);
    const Verdict verdict = statusOf(card, _destinations, _paths);
    finish(verdict, false);
    return verdict.exitStatus;
  }

 private:
  int refuse(const std::string& reason, const std::optional<std::string>& path) {
    _listener.take(ErrorReported{.text = reason, .path = path});
    finish({.exitStatus = ExitStatus::nothingDone, .line = "DO NOT ERASE: nothing is known."}, true);
    return ExitStatus::nothingDone;
  }

  // Those asked for, or all that are known for this card.
  void findDestinations(const std::string& card) {
    _paths = _line.destinations;
    for (const std::string& path : _paths) _realPaths.push_back(placeFacts(path).realPath);
    if (!_paths.empty()) return;
    _paths = _realPaths = _catalogue.destinationsOf(card);
    if (_paths.empty()) _listener.take(Warned{.text = "no offload of this card is known", .path = _line.card});
  }

  void look(const std::string& path, const platform::Folder& cardRoot, const Listing& card) {
    const auto root = platform::Folder::open(path, nullptr);
    if (!root) _listener.take(Warned{.text = "the destination can't be opened", .path = path});
    PlannedDestination& place = _destinations.emplace_back();
    place.listing = root ? listDestination(*root, card, never) : DestinationListing(card.entries.size());
    if (root) place.linkTargets = linkTargetsAt(*root, card, place.listing);
    if (root) place.continued = continuedChains(cardRoot, card, *root, place.listing);
    place.records = _catalogue.recordsOf(path, card);
    place.volume = platform::volumeOf(path);
  }

  void finish(const Verdict& verdict, bool wasRefused) {
    const std::chrono::duration<double> elapsed = Clock::now() - _started;
    Finished finished{.verdict = verdict, .seconds = elapsed.count(), .wasRefused = wasRefused};
    for (std::size_t position = 0; position < _destinations.size(); ++position) {
      const platform::Volume& volume = _destinations[position].volume;
      finished.destinations.push_back(
          {.path = _paths[position], .fileSystem = volume.fileSystem, .readBack = volume.readBack});
    }
    _listener.take(finished);
  }

  const CommandLine& _line;
  Listener& _listener;
  Catalogue _catalogue;
  const Clock::time_point _started = Clock::now();
  std::vector<std::string> _paths;  // as they are to be shown
  std::vector<std::string> _realPaths;
  std::vector<PlannedDestination> _destinations;
};

}  // namespace

int runStatus(const CommandLine& line) {
  return withDisplay(line, [&line](OutputStream&, Listener& listener) { return tellStatus(line, listener); });
}

int runHistory(const CommandLine& line) {
  return withDisplay(
      line, [&line](OutputStream& results, Listener& listener) { return tellHistory(line, results, listener); });
}

int tellStatus(const CommandLine& line, Listener& listener) {
  return StatusReport(line, listener).tell();
}

int tellHistory(const CommandLine& line, OutputStream& results, Listener& listener) {
  const Catalogue catalogue = openedToLook(line);
  const std::vector<OffloadRecord> offloads = catalogue.history();
  const int status = catalogue.problem() ? ExitStatus::nothingDone : 0;
  if (status != 0) {
    listener.take(ErrorReported{.text = *catalogue.problem(), .path = std::nullopt});
  } else {
    results.writeAlways(line.json ? historyLines(offloads) : historyText(offloads));
  }
  // A program reads up to the summary, whatever it asked for.
  if (line.json) listener.take(Finished{.verdict = {.exitStatus = status}});
  return status;
}

}  // namespace kdxoffload
