#include "KDXFileTools/kdxoffload/Batch.h"

namespace kdxoffload {

namespace {

// Large enough that the sync is a small part of a batch, small enough that little is lost with it.
constexpr std::size_t mostJobs = 512;
constexpr uint64_t mostBytes = uint64_t{256} << 20;

uint64_t bytesOf(const Job& job, const Plan& plan, const Listing& card) {
  return card.entries[plan.files[job.first]].facts.size;
}

}  // namespace

std::vector<Batch> batchesOf(const Plan& plan, const Listing& card) {
  std::vector<Batch> batches;
  uint64_t bytes = 0;
  for (const Job& job : plan.jobs) {
    const uint64_t size = bytesOf(job, plan, card);
    const bool isSmall = job.sequence == Job::noSequence && size <= largestSmallFile;
    const bool joins = isSmall && !batches.empty() && batches.back().isSmall && batches.back().jobs.size() < mostJobs &&
                       bytes + size <= mostBytes;
    if (!joins) {
      batches.push_back({.isSmall = isSmall});
      bytes = 0;
    }
    batches.back().jobs.push_back(job);
    bytes += size;
  }
  return batches;
}

std::vector<Batch> retriesOf(const std::vector<Job>& failed) {
  std::vector<Batch> batches;
  for (const Job& job : failed) {
    for (uint32_t index = 0; index < job.count; ++index) {
      Job single = job;
      single.first = job.first + index;
      single.count = 1;
      single.sequence = Job::noSequence;
      batches.push_back({.jobs = {single}, .isRetry = true});
    }
  }
  return batches;
}

}  // namespace kdxoffload
