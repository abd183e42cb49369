#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Amounts.h"
#include "KDXFileTools/kdxoffload/DestinationSet.h"
#include "KDXFileTools/kdxoffload/Listing.h"
#include "KDXFileTools/kdxoffload/Plan.h"
#include "KDXFileTools/kdxoffload/Reasons.h"
#include "KDXFileTools/kdxoffload/Results.h"

namespace kdxoffload {

// Everything that the verdict depends on. References must outlive the call.
struct VerdictFacts {
  const Listing& before;                                // the card when it was planned
  const Listing& after;                                 // the card when everything was done
  const std::vector<DestinationListing>& destinations;  // everything done, by the entries of `before`
  const Plan& plan;
  const Results& results;
  std::vector<std::string> destinationPaths{};    // as given
  std::vector<platform::Volume> volumes{};        // of the destinations
  std::vector<std::set<EntryIndex>> continued{};  // files that go on at each destination (see continuedChains)
  std::vector<std::string> warnings{};            // of the preflight
  bool readBack = true;
  std::optional<int> signal{};  // that ended the run
};

// An entry of the card that is not proved, or can't be proved.
struct NotProved {
  std::string path{};    // relative to the card
  int status = 0;        // of the job; 0 if no job ran
  std::string reason{};  // a clause that follows the path
  std::string advice{};  // what to do, a sentence; may be empty
};

// What is reported at the end, to a person or a program. A plain value; names in it are as on disk.
struct Verdict {
  bool isSafe = false;
  int exitStatus = 0;
  std::vector<NotProved> notProved{};  // in the order of the card
  std::vector<std::string> changes{};  // what was added, removed or changed meanwhile, one sentence each
  std::vector<std::string> remarks{};  // shown with the verdict: warnings, what is not kept, what a read-back proves
  uint64_t files = 0;                  // of the card, without excluded ones
  uint64_t proved = 0;                 // at every destination
  uint64_t bytes = 0;                  // of the card's files
  std::string line{};                  // "SAFE TO ERASE: ...", without a newline
};

// Says safe only if nothing at all speaks against it. Facts that do not fit together (a listing of another card, a destination
// without one) prove nothing.
Verdict verdictOf(const VerdictFacts& facts);

// For each entry of the card the destinations where it was proved and was found at the end as it was proved: what the verdict
// counts as proved there. Empty sets for facts that do not fit together.
std::vector<DestinationSet> provedAtTheEnd(const VerdictFacts& facts);

}  // namespace kdxoffload
