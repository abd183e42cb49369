#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/DispatchGroup.h"

using platform::DispatchGroup;

namespace {

TEST(DispatchGroup, WaitingForNothingReturnsAtOnce) {
  DispatchGroup group;
  group.wait();
  group.wait();
}

TEST(DispatchGroup, TheWaitEndsWithTheLastLeaveAndSeesWhatWasWrittenBefore) {
  DispatchGroup group;
  std::vector<int> written(8);  // plain: the wait must make it visible
  std::vector<std::jthread> threads;
  for (int& own : written) {
    group.enter();
    threads.emplace_back([&group, &own] {
      own = 1;
      group.leave();
    });
  }
  group.wait();
  EXPECT_EQ(std::vector<int>(8, 1), written);
}

TEST(DispatchGroup, OneLeaveOfTwoDoesNotEndTheWait) {
  DispatchGroup group;
  group.enter();
  group.enter();
  std::atomic<bool> allLeft = false;
  std::jthread waiting([&] {
    group.wait();
    EXPECT_TRUE(allLeft);
  });
  group.leave();
  for (int turn = 0; turn < 1000; ++turn) std::this_thread::yield();
  allLeft = true;
  group.leave();
}

TEST(DispatchGroup, AllWaitingThreadsGoOn) {
  DispatchGroup group;
  group.enter();
  std::atomic<int> wentOn = 0;
  {
    std::vector<std::jthread> waiting;
    for (int thread = 0; thread < 4; ++thread) {
      waiting.emplace_back([&] {
        group.wait();
        ++wentOn;
      });
    }
    group.leave();
  }
  EXPECT_EQ(4, wentOn);
}

TEST(DispatchGroup, CanBeUsedAgainAfterAWait) {
  DispatchGroup group;
  int written = 0;
  for (int round = 1; round <= 3; ++round) {
    group.enter();
    std::jthread leaving([&] {
      ++written;
      group.leave();
    });
    group.wait();
    EXPECT_EQ(round, written);
  }
}

TEST(DispatchGroup, MayBeDestroyedAsSoonAsAWaitHasReturned) {
  for (int round = 0; round < 500; ++round) {
    auto group = std::make_unique<DispatchGroup>();
    group->enter();
    std::jthread leaving([&leaves = *group] { leaves.leave(); });
    group->wait();
    group.reset();
  }
}

}  // namespace
