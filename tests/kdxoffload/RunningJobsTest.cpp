#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/RunningJobs.h"

using namespace kdxoffload;

namespace {

TEST(RunningJobs, AJobRunsFromItsStartToItsEnd) {
  RunningJobs jobs;
  jobs.take(JobStarted{.job = 7, .path = "a.mov", .bytes = 900});
  ASSERT_NE(nullptr, jobs.find(7));
  EXPECT_EQ("a.mov", jobs.find(7)->path);
  EXPECT_EQ(900U, jobs.find(7)->bytes);
  EXPECT_EQ(JobPhase::copying, jobs.find(7)->phase);
  jobs.take(JobEnded{.job = 7});
  EXPECT_EQ(nullptr, jobs.find(7));
  EXPECT_TRUE(jobs.all().empty());
}

TEST(RunningJobs, BytesCountWithinAPhase) {
  RunningJobs jobs;
  jobs.take(JobStarted{.job = 1, .path = "a.mov", .bytes = 900});
  jobs.take(JobProgressed{.job = 1, .phase = JobPhase::copying, .bytes = 800});
  EXPECT_EQ(800U, jobs.find(1)->bytesInPhase);
  jobs.take(JobPhaseChanged{.job = 1, .phase = JobPhase::readingBack});
  EXPECT_EQ(JobPhase::readingBack, jobs.find(1)->phase);
  EXPECT_EQ(0U, jobs.find(1)->bytesInPhase);
}

TEST(RunningJobs, TheJobThatRunsLongestIsFirst) {
  RunningJobs jobs;
  for (const uint64_t number : {3U, 4U, 5U}) jobs.take(JobStarted{.job = number, .path = std::to_string(number)});
  jobs.take(JobEnded{.job = 3});
  EXPECT_EQ("4", jobs.all().begin()->second.path);
}

TEST(RunningJobs, WhatComesOfAJobThatIsNotRunningIsPassedOver) {
  RunningJobs jobs;
  jobs.take(JobProgressed{.job = 1, .bytes = 5});
  jobs.take(JobPhaseChanged{.job = 1, .phase = JobPhase::flushing});
  jobs.take(JobEnded{.job = 1});
  EXPECT_TRUE(jobs.all().empty());
}

}  // namespace
