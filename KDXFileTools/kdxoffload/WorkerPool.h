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

// What is known of an order that has ended, with or without success.
struct JobReport {
  JobResult result{};
  WorkerOutput output{};
  std::string errors{};  // standard error during this order; at most its last few KiB
  bool endedItsProcess = false;
};

// Worker processes, each with one order at a time. Used by the thread that runs the io_context; callbacks run on it too.
class WorkerPool {
 public:
  struct Settings {
    WorkerSetup setup{};
    std::string program{platform::thisProgram};  // that the workers run
    std::size_t ordersOfAWorker = 64;  // then it is replaced, so that what jobs leave in a process does not pile up
    double stallSeconds =
        300;  // an order without any input or output for so long is ended; a flush may take 10 times as long
    // A killed worker that does not go, and an idle one that was asked to go, is left to itself after so long.
    double secondsUntilGivenUp = 10;
    std::vector<int> inherited{};  // descriptors that stay open as long as the workers: the destinations' locks
  };
  using Done = std::function<void(JobReport)>;
  using Moved = std::function<void(uint64_t number, const WorkerOutput&)>;

  //   moved   called whenever the output of an order has something new
  WorkerPool(asio::io_context& context, Settings settings, Moved moved);
  // Kills what still runs.
  ~WorkerPool();  // NOLINT(bugprone-exception-escape): see its definition
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Gives the order to an idle worker, or starts a worker. `done` is called exactly once, never inside `give`. The caller
  // decides how many orders run at once.
  void give(const JobOrder& order, Done done);
  [[nodiscard]] std::size_t running() const;

  // Ends the workers that copy or compare; each of their orders ends with the status of its process. Temporary files are left.
  // Other orders go on, and new ones may be given.
  void stop();
  // Lets the workers end by themselves, and kills those that do not. To be called only while no order is running.
  void close();

 private:
  class Worker;
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace kdxoffload
