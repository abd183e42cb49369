#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "KDXFileTools/kdxoffload/Plan.h"
#include "KDXFileTools/kdxoffload/Results.h"
#include "platform/ChildProcess.h"

namespace asio {
class io_context;
}

namespace kdxoffload {

// How to carry out a plan.
struct RunSettings {
  WorkerSetup setup{};
  std::string program{platform::thisProgram};  // that the workers run
  std::optional<std::size_t> jobs{};           // at once; none: the number that is fastest
  double stallSeconds = 300;
  std::vector<int> inherited{};                 // see WorkerPool
  std::vector<std::string> destinationPaths{};  // as given, for displays
  std::string cardPath{};                       // the same
  // Digests of what was proved before of the card as it is now, one for each entry of the card; none where there is none.
  std::vector<FileDigest> knownDigests{};
  std::vector<DestinationSet> knownProofs{};  // and where
  bool hasLeftovers = false;                  // a destination has the private folder of a run that was interrupted
  // What stood at each destination when the plan was made, one listing a destination; none in tests that look at no end.
  std::vector<DestinationListing> foundBefore{};
  // For every entry of the card: at which destinations this folder does not have its mode and time yet.
  std::vector<DestinationSet> foldersToKeep{};
};

// Carries out a plan: makes folders, copies files, tries again what failed, makes links, removes what is left, and last sets
// times and modes of folders. Owns the workers and the clock. A failed job never ends the run.
//
// A file is reported and recorded as proved only after its job has ended with 0 and its data and names are permanent. Small
// files share a flush: those of a batch wait for one sync of every destination.
class Run {
 public:
  // References must live as long as the run.
  Run(asio::io_context& context, RunSettings settings, const Listing& card, const Plan& plan, Catalogue& catalogue,
      Listener& listener);
  ~Run();  // NOLINT(bugprone-exception-escape): see its definition
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // Returns at once. `ended` is called when nothing is left to do, or when everything that ran has stopped.
  void start(std::function<void()> ended);
  // Starts nothing new, stops what runs, and ends.
  void stop(int signal);
  // Posts the state of everything.
  void tellState();

  // Complete when the run has ended.
  [[nodiscard]] const Results& results() const;

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace kdxoffload
