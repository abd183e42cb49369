#pragma once

#include <cstddef>
#include <vector>

#include "KDXFileTools/kdxoffload/DestinationSet.h"
#include "KDXFileTools/kdxoffload/Listing.h"
#include "KDXFileTools/kdxoffload/Plan.h"
#include "KDXFileTools/kdxoffload/WorkerPool.h"

namespace kdxoffload {

// Jobs that are recorded together before the first of them starts, and closed together: either one job that flushes its own
// files, or small jobs that wait for one sync of every destination. A plain value.
struct Batch {
  // A job that has ended with status 0, and its report.
  struct Finished {
    Job job;
    JobReport report;
  };

  std::vector<Job> jobs{};
  bool isSmall = false;  // of small files: many at once, without a flush of their own
  bool isRetry = false;
  std::size_t started = 0;  // of the jobs
  std::size_t ended = 0;
  std::vector<Finished> finished{};

  [[nodiscard]] bool hasMore() const { return started < jobs.size(); }
  [[nodiscard]] bool isOver() const { return ended == jobs.size(); }
  // All destinations of the finished jobs.
  [[nodiscard]] DestinationSet destinations() const {
    DestinationSet all;
    for (const Finished& done : finished) all = all.with(done.job.destinations);
    return all;
  }
};

// The jobs of the plan in batches, in the order of the plan.
std::vector<Batch> batchesOf(const Plan& plan, const Listing& card);

// The batches for the second try: each file of each failed job is a job of its own.
std::vector<Batch> retriesOf(const std::vector<Job>& failed);

}  // namespace kdxoffload
