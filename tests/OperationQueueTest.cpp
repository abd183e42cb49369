#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <future>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/OperationQueue.h"
#include "tests/support/ThreadWatch.h"

using platform::OperationQueue;

namespace {

TEST(OperationQueue, RunsOneOperationAtATimeInTheOrderAdded) {
  std::vector<int> order;  // no lock: only one operation at a time touches it
  OperationQueue queue("one");
  for (int operation = 0; operation < 500; ++operation) {
    queue.addOperationWithBlock([&order, operation] { order.push_back(operation); });
  }
  queue.waitUntilAllOperationsAreFinished();
  std::vector<int> expected(500);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(expected, order);
}

TEST(OperationQueue, WaitingWithoutOperationsReturnsAtOnce) {
  OperationQueue queue("none");
  queue.waitUntilAllOperationsAreFinished();
}

TEST(OperationQueue, TheWaitEndsWithTheLastOperationAndNotBefore) {
  OperationQueue queue("wait");
  std::promise<void> release;
  int written = 0;  // plain: the wait must make it visible
  queue.addOperationWithBlock([&] { release.get_future().wait(); });
  queue.addOperationWithBlock([&] { written = 1; });
  release.set_value();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(1, written);
}

TEST(OperationQueue, TheWaitCountsOperationsThatWereAddedByOperations) {
  OperationQueue queue("nested");
  int hasRun = 0;
  queue.addOperationWithBlock([&] {
    ++hasRun;
    queue.addOperationWithBlock([&] {
      ++hasRun;
      queue.addOperationWithBlock([&] { ++hasRun; });
    });
  });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(3, hasRun);
}

TEST(OperationQueue, CanBeUsedAgainAfterAWait) {
  OperationQueue queue("again");
  int hasRun = 0;
  for (int round = 1; round <= 3; ++round) {
    queue.addOperationWithBlock([&] { ++hasRun; });
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(round, hasRun);
  }
}

TEST(OperationQueue, AsManyAsSetRunSideBySide) {
  OperationQueue queue("three");
  queue.setMaxConcurrentOperationCount(3);
  std::barrier meeting(3);
  std::atomic<int> met = 0;
  for (int operation = 0; operation < 3; ++operation) {
    queue.addOperationWithBlock([&] {
      meeting.arrive_and_wait();
      ++met;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(3, met);
}

TEST(OperationQueue, NeverMoreThanSetRunSideBySide) {
  OperationQueue queue("two");
  queue.setMaxConcurrentOperationCount(2);
  std::atomic<int> running = 0;
  std::atomic<int> hasRun = 0;
  for (int operation = 0; operation < 200; ++operation) {
    queue.addOperationWithBlock([&] {
      EXPECT_LE(++running, 2);
      std::this_thread::yield();
      --running;
      ++hasRun;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(200, hasRun);
}

TEST(OperationQueue, AnOperationThatIsFinishedHoldsNothingAnyMore) {
  OperationQueue queue("release");
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  queue.addOperationWithBlock([held = std::move(held)] { EXPECT_EQ(1, *held); });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(watched.expired());
}

TEST(OperationQueue, DestroyingItRunsEverythingThatWasAdded) {
  int hasRun = 0;
  {
    OperationQueue queue("destroyed");
    for (int operation = 0; operation < 50; ++operation) queue.addOperationWithBlock([&] { ++hasRun; });
  }
  EXPECT_EQ(50, hasRun);
}

TEST(OperationQueue, AnOperationThatBlocksDoesNotHoldUpAnotherQueue) {
  std::promise<void> release;
  OperationQueue blocked("blocked");
  OperationQueue other("other");
  blocked.addOperationWithBlock([&] { release.get_future().wait(); });
  bool hasRun = false;
  other.addOperationWithBlock([&] { hasRun = true; });
  other.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(hasRun);
  release.set_value();
}

TEST(OperationQueue, ItsThreadCarriesTheLabel) {
  OperationQueue queue("volume 7");
  std::string name;
  queue.addOperationWithBlock([&] { name = nameOfThisThread(); });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ("volume 7", name);
}

}  // namespace
