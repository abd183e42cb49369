#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "KDXFileTools/kdxoffload/WorkerOutput.h"
#include "platform/ChildProcess.h"

namespace asio {
class io_context;
}

namespace kdxoffload {

// What there is to know of an order that was done, or not.
struct JobReport {
  JobResult result{};
  WorkerOutput output{};
  std::string errors{};  // standard error, as far as it is about this order; at most its last few KiB
  bool endedItsProcess = false;
};

// Worker processes, each with one order at a time. Used by the thread that runs the io_context, which also calls back.
class WorkerPool {
 public:
  struct Settings {
    WorkerSetup setup{};
    std::string program{platform::thisProgram};  // that the workers run
    std::size_t ordersOfAWorker = 64;  // then it is replaced: what jobs leave behind in a process does not pile up
    double stallSeconds = 300;  // without any input or output an order is ended; a flush may take 10 times as long
    // After that long a killed worker that does not go, and an idle one that is asked to, is left to itself.
    double secondsUntilGivenUp = 10;
    std::vector<int> inherited{};  // descriptors that live as long as the workers: the destinations' locks
  };
  using Done = std::function<void(JobReport)>;
  using Moved = std::function<void(uint64_t number, const WorkerOutput&)>;

  //   moved   called whenever an order's output has told something new
  WorkerPool(asio::io_context& context, Settings settings, Moved moved);
  // Kills what still runs.
  ~WorkerPool();  // NOLINT(bugprone-exception-escape): see its definition
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Gives the order to an idle worker, or starts one. `done` is called exactly once, never from within `give`. How many run
  // at once is the caller's choice.
  void give(const JobOrder& order, Done done);
  [[nodiscard]] std::size_t running() const;

  // Ends the workers that copy or compare; each of their orders ends with the status of its process. Temporary files are left.
  // What else is under way goes on, and new orders may be given.
  void stop();
  // Lets the workers end by themselves, and kills those that do not; only while none is running.
  void close();

 private:
  class Worker;
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace kdxoffload
