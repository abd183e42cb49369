#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/Batch.h"

using namespace kdxoffload;

namespace {

// A card with files of these sizes, and a plan with a job for each.
struct CardAndPlan {
  explicit CardAndPlan(const std::vector<uint64_t>& sizes) {
    for (const uint64_t size : sizes) {
      const auto index = static_cast<EntryIndex>(card.entries.size());
      card.entries.push_back(
          {.name = std::to_string(index), .facts = {.kind = platform::ItemKind::file, .size = size}});
      plan.jobs.push_back({.first = index, .destinations = DestinationSet::all(1)});
      plan.files.push_back(index);
    }
  }
  Listing card;
  Plan plan;
};

}  // namespace

TEST(Batch, ABigFileIsABatchOfItsOwn) {
  const CardAndPlan planned({largestSmallFile + 1, largestSmallFile + 1, 1});
  const std::vector<Batch> batches = batchesOf(planned.plan, planned.card);
  ASSERT_EQ(3U, batches.size());
  EXPECT_FALSE(batches[0].isSmall);
  EXPECT_FALSE(batches[1].isSmall);
  EXPECT_TRUE(batches[2].isSmall);
}

TEST(Batch, SmallFilesAreTogetherUpToALimitOfFilesAndOfBytes) {
  const CardAndPlan many(std::vector<uint64_t>(2000, 1));
  const CardAndPlan heavy(std::vector<uint64_t>(200, largestSmallFile));
  for (const CardAndPlan* planned : {&many, &heavy}) {
    const std::vector<Batch> batches = batchesOf(planned->plan, planned->card);
    std::size_t jobs = 0;
    for (const Batch& batch : batches) {
      EXPECT_TRUE(batch.isSmall);
      jobs += batch.jobs.size();
    }
    EXPECT_EQ(planned->plan.jobs.size(), jobs);
    EXPECT_GT(batches.size(), 1U);
  }
}

TEST(Batch, ASequenceIsABatchOfItsOwnHoweverSmall) {
  CardAndPlan planned({1, 1, 1, 1});
  planned.plan.jobs = {{.first = 0, .count = 3, .sequence = 0}, {.first = 3}};
  planned.plan.sequences = {"0-2.#"};
  const std::vector<Batch> batches = batchesOf(planned.plan, planned.card);
  ASSERT_EQ(2U, batches.size());
  EXPECT_FALSE(batches[0].isSmall);
}

TEST(Batch, ASequenceThatFailedIsTriedAgainFileByFile) {
  const Job sequence{.first = 4, .count = 3, .sequence = 7, .destinations = DestinationSet::only(2)};
  const std::vector<Batch> batches = retriesOf({sequence});
  ASSERT_EQ(3U, batches.size());
  for (uint32_t index = 0; index < 3; ++index) {
    ASSERT_EQ(1U, batches[index].jobs.size());
    const Job& job = batches[index].jobs[0];
    EXPECT_EQ(4 + index, job.first);
    EXPECT_EQ(1U, job.count);
    EXPECT_EQ(Job::noSequence, job.sequence);
    EXPECT_EQ(DestinationSet::only(2), job.destinations);
    EXPECT_TRUE(batches[index].isRetry);
    EXPECT_FALSE(batches[index].isSmall);
  }
}
