#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXFileSystemOperationQueueManager.h"
#include "tests/support/ThreadWatch.h"

namespace {

using platform::FileURL;
using Manager = KDXFileSystemOperationQueueManager;

Manager& shared() {
  return Manager::sharedOperationQueueManager();
}

TEST(KDXFileSystemOperationQueueManager, EveryWayToAManagerGivesTheSharedOne) {
  Manager& manager = shared();
  EXPECT_EQ(&manager, &Manager::sharedOperationQueueManager());
  EXPECT_EQ(&manager, &Manager::init());
}

TEST(KDXFileSystemOperationQueueManager, TheFirstManagerAskedForIsTheSharedOneToo) {
  Manager& manager = Manager::init();
  EXPECT_EQ(&manager, &shared());
}

TEST(KDXFileSystemOperationQueueManager, EqualURLsShareAQueue) {
  const auto queue = shared().operationQueueForURL(FileURL("/card/clip.mov"));
  ASSERT_NE(nullptr, queue);
  EXPECT_EQ(queue, shared().operationQueueForURL(FileURL("/card/clip.mov")));
}

TEST(KDXFileSystemOperationQueueManager, DifferentFilesOfOneFolderHaveDifferentQueues) {
  const auto queue = shared().operationQueueForURL(FileURL("/card/a.mov"));
  EXPECT_NE(queue, shared().operationQueueForURL(FileURL("/card/b.mov")));
  EXPECT_NE(queue, shared().operationQueueForURL(FileURL("/card")));
}

TEST(KDXFileSystemOperationQueueManager, TheURLIsTheKeyExactlyAsItWasGiven) {
  const auto queue = shared().operationQueueForURL(FileURL("/card/clip.mov"));
  EXPECT_NE(queue, shared().operationQueueForURL(FileURL("/card/./clip.mov")));
  EXPECT_NE(queue, shared().operationQueueForURL(FileURL("/card//clip.mov")));
  EXPECT_NE(queue, shared().operationQueueForURL(FileURL("/card/CLIP.MOV")));
}

TEST(KDXFileSystemOperationQueueManager, ADrainedQueueIsHandedOutAgain) {
  const auto queue = shared().operationQueueForURL(FileURL("/card/clip.mov"));
  queue->addOperationWithBlock([] {});
  shared().waitUntilAllOperationQueuesAreFinished();
  EXPECT_EQ(queue, shared().operationQueueForURL(FileURL("/card/clip.mov")));
  bool ran = false;
  queue->addOperationWithBlock([&] { ran = true; });
  shared().waitUntilAllOperationQueuesAreFinished();
  EXPECT_TRUE(ran);
}

TEST(KDXFileSystemOperationQueueManager, AQueueLivesOnWhenItsCallerForgetsIt) {
  bool ran = false;
  shared().operationQueueForURL(FileURL("/card/clip.mov"))->addOperationWithBlock([&] { ran = true; });
  shared().waitUntilAllOperationQueuesAreFinished();
  EXPECT_TRUE(ran);
}

TEST(KDXFileSystemOperationQueueManager, OperationsOfOneQueueRunInTheOrderAdded) {
  const auto queue = shared().operationQueueForURL(FileURL("/card/clip.mov"));
  std::vector<int> order;
  std::vector<int> expected;
  for (int i = 0; i < 50; ++i) {
    expected.push_back(i);
    queue->addOperationWithBlock([&order, i] { order.push_back(i); });
  }
  shared().waitUntilAllOperationQueuesAreFinished();
  EXPECT_EQ(expected, order);
}

// Returns when no other thread of this process has anything to do.
void waitUntilAllOtherThreadsSleep() {
  const auto isBusy = [](const std::filesystem::directory_entry& thread) {
    const pid_t id = std::stoi(thread.path().filename().string());
    return id != ::gettid() && stateOf(id) == 'R';
  };
  const auto anyIsBusy = [&] {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::any_of(begin(threads), end(threads), isBusy);
  };
  while (anyIsBusy()) std::this_thread::yield();
}

TEST(KDXFileSystemOperationQueueManager, AnOperationStartsOnlyWhenTheOneBeforeItHasEnded) {
  const auto queue = shared().operationQueueForURL(FileURL("/card/clip.mov"));
  std::promise<void> bothAdded;
  std::atomic<bool> firstEnded = false;
  bool startedAfterTheFirst = false;
  queue->addOperationWithBlock([&] {
    bothAdded.get_future().wait();
    waitUntilAllOtherThreadsSleep();
    firstEnded = true;
  });
  queue->addOperationWithBlock([&] { startedAfterTheFirst = firstEnded; });
  bothAdded.set_value();
  shared().waitUntilAllOperationQueuesAreFinished();
  EXPECT_TRUE(startedAfterTheFirst);
}

TEST(KDXFileSystemOperationQueueManager, OperationsOfDifferentQueuesRunAtTheSameTime) {
  // Each needs the other to be under way.
  std::promise<void> firstRuns;
  std::promise<void> secondRuns;
  std::atomic<int> ended = 0;
  shared().operationQueueForURL(FileURL("/card/a.mov"))->addOperationWithBlock([&] {
    firstRuns.set_value();
    secondRuns.get_future().wait();
    ++ended;
  });
  shared().operationQueueForURL(FileURL("/card/b.mov"))->addOperationWithBlock([&] {
    secondRuns.set_value();
    firstRuns.get_future().wait();
    ++ended;
  });
  shared().waitUntilAllOperationQueuesAreFinished();
  EXPECT_EQ(2, ended);
}

TEST(KDXFileSystemOperationQueueManager, WaitingWithNoQueueHandedOutReturnsAtOnce) {
  bool returned = false;
  std::thread([&] {
    shared().waitUntilAllOperationQueuesAreFinished();
    returned = true;
  }).join();
  EXPECT_TRUE(returned);
}

TEST(KDXFileSystemOperationQueueManager, WaitingForQueuesWithoutOperationsReturnsAtOnce) {
  const auto queue = shared().operationQueueForURL(FileURL("/card/clip.mov"));
  shared().waitUntilAllOperationQueuesAreFinished();
  EXPECT_EQ(queue, shared().operationQueueForURL(FileURL("/card/clip.mov")));
}

TEST(KDXFileSystemOperationQueueManager, WaitingEndsWhenTheLastOperationOfEveryQueueHasEnded) {
  std::promise<void> mayEnd;
  const std::shared_future<void> end = mayEnd.get_future().share();
  std::atomic<int> ended = 0;
  for (const char* path : {"/a/clip.mov", "/b/clip.mov", "/c/clip.mov"}) {
    const auto queue = shared().operationQueueForURL(FileURL(path));
    for (int i = 0; i < 3; ++i) {
      queue->addOperationWithBlock([&ended, end] {
        end.wait();
        ++ended;
      });
    }
  }
  int endedWhenItReturned = -1;
  WatchedThread waiting([&] {
    shared().waitUntilAllOperationQueuesAreFinished();
    endedWhenItReturned = ended;
  });
  waiting.waitUntilBlocked();
  mayEnd.set_value();
  waiting.join();
  EXPECT_EQ(9, endedWhenItReturned);
}

TEST(KDXFileSystemOperationQueueManager, ThreadsThatAskAtTheSameTimeGetTheSameQueue) {
  constexpr std::size_t threadCount = 8;
  std::vector<std::shared_ptr<platform::OperationQueue>> queues(threadCount);
  std::promise<void> go;
  const std::shared_future<void> start = go.get_future().share();
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < threadCount; ++i) {
    threads.emplace_back([&queues, start, i] {
      start.wait();
      queues[i] = shared().operationQueueForURL(FileURL("/card/clip.mov"));
    });
  }
  go.set_value();
  for (std::thread& thread : threads) thread.join();
  ASSERT_NE(nullptr, queues.front());
  EXPECT_EQ(1u, (std::set<std::shared_ptr<platform::OperationQueue>>(queues.begin(), queues.end()).size()));
}

}  // namespace
