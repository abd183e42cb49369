// Runs the whole sweep, or the faults whose names are given; see scripts/sweep.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/sweep/Offload.h"
#include "tests/sweep/Sweep.h"

namespace {

struct Counts {
  std::size_t faults = 0;
  std::size_t runs = 0;
  std::size_t injected = 0;
  std::size_t notReached = 0;
  std::size_t violations = 0;

  Counts& operator+=(const Counts& other) {
    faults += other.faults;
    runs += other.runs;
    injected += other.injected;
    notReached += other.notReached;
    violations += other.violations;
    return *this;
  }
};

using CountsByKind = std::map<std::string, Counts>;

void printCounts(const std::string& kind, const Counts& counts) {
  std::cout << kind << ": " << counts.faults << " faults, " << counts.runs << " runs, " << counts.injected
            << " failed calls or kills, " << counts.notReached << " not reached, " << counts.violations
            << " violations\n";
}

// Goes through the faults of one scenario. Each thread takes the next fault.
class ScenarioSweep {
 public:
  ScenarioSweep(Scenario scenario, const std::vector<std::string>& wanted, CountsByKind& byCall)
      : _scenario(std::move(scenario)), _wanted(wanted), _byCall(byCall) {}

  // False if only faults of other scenarios are wanted.
  bool listFaults() {
    if (!_wanted.empty() &&
        std::ranges::none_of(_wanted, [&](const std::string& name) { return name.starts_with(_scenario.name + ": "); }))
      return false;
    const Offload offload(_scenario);
    for (const auto& faults : {errorsOf(offload), refusalsOf(offload), killsOf(offload)}) {
      std::ranges::copy_if(faults, std::back_inserter(_faults), [&](const Fault& fault) { return isWanted(fault); });
    }
    return true;
  }

  Counts run() {
    std::vector<std::thread> threads;
    // Two threads for each processor: the tool waits for verdicts, and the sweep waits for the tool.
    for (unsigned index = 0; index < 2 * std::max(1U, std::thread::hardware_concurrency()); ++index) {
      threads.emplace_back([this] { work(); });
    }
    for (std::thread& thread : threads) thread.join();
    return _counts;
  }

 private:
  [[nodiscard]] bool isWanted(const Fault& fault) const {
    return _wanted.empty() || std::ranges::find(_wanted, nameOf(_scenario, fault)) != _wanted.end();
  }

  void work() {
    const Offload offload(_scenario);
    for (std::size_t index = 0; (index = _next++) < _faults.size();) {
      const Fault& fault = _faults[index];
      add(fault, runWith(offload, fault));
    }
  }

  void add(const Fault& fault, const FaultRun& run) {
    const std::lock_guard lock(_mutex);
    const Counts counts{.faults = 1,
                        .runs = run.runs,
                        .injected = run.injected,
                        .notReached = run.cameToPass ? 0U : 1U,
                        .violations = run.complaints.empty() ? 0U : 1U};
    _counts += counts;
    _byCall[fault.event == Event::killed ? "kill before any call" : fault.call] += counts;
    if (!run.complaints.empty()) {
      std::cout << "VIOLATION, again by: scripts/sweep '" << nameOf(_scenario, fault) << "'\n";
      for (const std::string& complaint : run.complaints) std::cout << "  " << complaint << "\n";
    } else if (!_wanted.empty()) {
      std::cout << nameOf(_scenario, fault) << ": status " << run.status << ", as promised\n";
    }
    std::cout << std::flush;
  }

  const Scenario _scenario;
  const std::vector<std::string>& _wanted;
  std::vector<Fault> _faults;
  std::atomic<std::size_t> _next = 0;
  std::mutex _mutex;
  Counts _counts;         // guarded by _mutex
  CountsByKind& _byCall;  // guarded by _mutex
};

}  // namespace

int main(int argc, char* argv[]) {
  const std::span words(argv, static_cast<std::size_t>(argc));
  const std::vector<std::string> wanted(words.begin() + 1, words.end());
  std::string whyNot;
  if (!canSupervise(whyNot)) {
    std::cerr << "sweep: " << whyNot << "\n";
    return EXIT_FAILURE;
  }
  std::vector<Scenario> scenarios = plainScenarios();
  std::ranges::move(lackingScenarios(), std::back_inserter(scenarios));
  Counts all;
  CountsByKind byCall;
  for (const Scenario& scenario : scenarios) {
    ScenarioSweep sweep(scenario, wanted, byCall);
    if (!sweep.listFaults()) continue;
    const Counts counts = sweep.run();
    printCounts(scenario.name, counts);
    all += counts;
  }
  if (all.faults == 0) {
    std::cerr << "sweep: no run of the tool has such a fault\n";
    return EXIT_FAILURE;
  }
  std::cout << "\n";
  for (const auto& [call, counts] : byCall) printCounts(call, counts);
  std::cout << "\n";
  printCounts("all", all);
  return all.violations == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
