#pragma once

#include <cstddef>
#include <vector>

#include "KDXFileTools/kdxoffload/DestinationSet.h"
#include "KDXFileTools/kdxoffload/Listing.h"
#include "KDXFileTools/kdxoffload/Plan.h"
#include "KDXFileTools/kdxoffload/WorkerPool.h"

namespace kdxoffload {

// Jobs that are recorded together before the first of them starts, and closed together: either one job that flushes by
// itself, or small ones that wait for one sync of every destination. A plain value.
struct Batch {
  // A job that has ended with 0, and what it left.
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
  std::vector<Job> failed{};

  [[nodiscard]] bool hasMore() const { return started < jobs.size(); }
  [[nodiscard]] bool isOver() const { return ended == jobs.size(); }
  // Where the finished jobs were at work.
  [[nodiscard]] DestinationSet destinations() const {
    DestinationSet all;
    for (const Finished& done : finished) all = all.with(done.job.destinations);
    return all;
  }
};

// The plan's jobs in batches, in their order.
std::vector<Batch> batchesOf(const Plan& plan, const Listing& card);

// Each file of each job by itself, as it is tried once more.
std::vector<Batch> retriesOf(const std::vector<Job>& failed);

}  // namespace kdxoffload
