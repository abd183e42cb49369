#include "KDXFileTools/kdxoffload/Status.h"

#include <fmt/format.h>

#include <string_view>

#include "KDXFileTools/kdxoffload/ExitStatus.h"
#include "KDXFileTools/kdxoffload/Results.h"

namespace kdxoffload {

namespace {

using platform::ItemFacts;
using platform::ItemKind;

// Why the file is not proved at the destination.
std::string_view reasonOf(const ItemFacts& there, const FileRecord& record) {
  const bool isThere = there.kind != ItemKind::absent;
  switch (record.state) {
    case FileRecord::State::none:
      return isThere ? "what stands there was not offloaded, as far as is known" : "it was not offloaded";
    case FileRecord::State::begun:
      return "its offload was begun and did not end";
    case FileRecord::State::copied:
      return isThere ? "it was copied and not read back" : "it was copied, not read back, and is not there any more";
    default:
      return isThere ? "it changed at the destination after its proof" : "it was proved and is not there any more";
  }
}

std::string_view reasonOf(ItemKind kind) {
  return kind == ItemKind::folder ? "the folder is not there" : "the link is not there";
}

// The destinations at which the plan has nothing left to do for the entry.
DestinationSet doneAt(const Plan& plan, EntryIndex entry, ItemKind kind, DestinationSet everywhere) {
  if (kind == ItemKind::file) return plan.proved[entry];
  return everywhere.without(plan.folders[entry]).without(plan.links[entry]);
}

void addFailure(Results& results, EntryIndex entry, std::size_t destination, std::string_view reason) {
  const auto [failure, isNew] = results.failures.try_emplace(entry, Failure{.reason = std::string(reason)});
  if (isNew || failure->second.reason == reason) failure->second.destinations.insert(destination);
}

Results resultsOf(const Listing& card, std::span<const PlannedDestination> destinations, const Plan& plan) {
  Results results(card.entries.size(), destinations.size());
  const DestinationSet everywhere = DestinationSet::all(destinations.size());
  for (EntryIndex entry = 0; entry < card.entries.size(); ++entry) {
    const ItemKind kind = card.entries[entry].facts.kind;
    const DestinationSet done = doneAt(plan, entry, kind, everywhere);
    for (std::size_t destination = 0; destination < destinations.size(); ++destination) {
      const PlannedDestination& place = destinations[destination];
      if (done.contains(destination)) {
        results.setProof(entry, destination, Proof::before);
      } else if (kind == ItemKind::file) {
        addFailure(results, entry, destination, reasonOf(place.listing[entry], place.records[entry]));
      } else {
        addFailure(results, entry, destination, reasonOf(kind));
      }
    }
  }
  return results;
}

// "/mnt/raid: 12,937 of 12,940 files are proved.", for each destination.
std::vector<std::string> provedWhere(const Listing& card, const Results& results,
                                     const std::vector<std::string>& paths) {
  std::vector<std::string> sentences;
  for (std::size_t destination = 0; destination < results.destinations(); ++destination) {
    uint64_t files = 0;
    uint64_t proved = 0;
    for (EntryIndex entry = 0; entry < card.entries.size(); ++entry) {
      if (card.entries[entry].facts.kind != ItemKind::file) continue;
      ++files;
      if (results.proof(entry, destination) != Proof::none) ++proved;
    }
    sentences.push_back(fmt::format("{}: {} of {} {} proved.", paths[destination], shownCount(proved),
                                    shownCount(files, "file"), proved == 1 ? "is" : "are"));
  }
  return sentences;
}

}  // namespace

Verdict statusOf(const Listing& card, std::span<const PlannedDestination> destinations,
                 const std::vector<std::string>& paths) {
  const Plan plan = makePlan(card, destinations, {.readBack = true});
  const Results results = resultsOf(card, destinations, plan);
  std::vector<DestinationListing> listings;
  std::vector<platform::Volume> volumes;
  std::vector<std::set<EntryIndex>> continued;
  for (const PlannedDestination& destination : destinations) {
    listings.push_back(destination.listing);
    volumes.push_back(destination.volume);
    continued.push_back(destination.continued);
  }
  Verdict verdict = verdictOf({.before = card,
                               .after = card,
                               .destinations = listings,
                               .plan = plan,
                               .results = results,
                               .destinationPaths = paths,
                               .volumes = volumes,
                               .continued = continued});
  if (verdict.exitStatus != ExitStatus::safe) verdict.exitStatus = ExitStatus::notProved;
  std::vector<std::string> remarks = provedWhere(card, results, paths);
  remarks.emplace_back("Nothing was read: this is what the catalogue and the listings say.");
  verdict.remarks.insert(verdict.remarks.begin(), remarks.begin(), remarks.end());
  return verdict;
}

}  // namespace kdxoffload
