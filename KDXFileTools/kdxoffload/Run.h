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

namespace asio {
class io_context;
}

namespace kdxoffload {

// How a plan is carried out.
struct RunSettings {
  WorkerSetup setup{};
  std::optional<std::size_t> jobs{};  // at once; none: as many as pays
  double stallSeconds = 300;
  std::vector<int> inherited{};                 // see WorkerPool
  std::vector<std::string> destinationPaths{};  // as given, for displays
};

// Carries a plan out: folders, then files, then what failed once more, then links, then times and modes of the folders, and
// last what is to be removed. Owns the workers and the clock. A failed job never ends it.
class Run {
 public:
  // References must live as long as the run.
  Run(asio::io_context& context, RunSettings settings, const Listing& card, const Plan& plan, Catalogue& catalogue,
      Listener& listener);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // Returns at once; `ended` is called when nothing is left to do, or all that ran has stopped.
  void start(std::function<void()> ended);
  // Starts nothing new, stops what runs, and comes to its end.
  void stop(int signal);
  // Posts the state of everything.
  void tellState();

  // Whole once it has ended.
  [[nodiscard]] const Results& results() const;

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace kdxoffload
