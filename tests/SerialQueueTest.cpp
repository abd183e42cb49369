#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/SerialQueue.h"
#include "tests/support/ThreadWatch.h"
#include "tests/support/ToolRun.h"

using platform::SerialQueue;
using testing::ElementsAre;

namespace {

// By name, since a sanitizer may start threads of its own.
std::ptrdiff_t threadsNamed(const std::string& name) {
  return std::ranges::count_if(std::filesystem::directory_iterator("/proc/self/task"), [&](const auto& thread) {
    std::string found;
    std::getline(std::ifstream(thread.path() / "comm"), found);
    return found == name;
  });
}

TEST(SerialQueue, RunsItsTasksOneAfterTheOtherInTheOrderInWhichTheyWereQueued) {
  std::vector<int> order;  // no lock: only one task at a time touches it
  {
    SerialQueue queue("order");
    for (int task = 0; task < 1000; ++task) queue.async([&order, task] { order.push_back(task); });
  }
  std::vector<int> expected(1000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(expected, order);
}

TEST(SerialQueue, RunsEveryTaskOfManyThreadsOnceAndKeepsTheOrderOfEachThread) {
  constexpr int threads = 4;
  constexpr int tasksPerThread = 250;
  std::array<std::vector<int>, threads> order;
  {
    SerialQueue queue("many");
    std::vector<std::jthread> queuing;
    for (auto& own : order) {
      queuing.emplace_back([&queue, &own] {
        for (int task = 0; task < tasksPerThread; ++task) queue.async([&own, task] { own.push_back(task); });
      });
    }
    queuing.clear();
  }
  std::vector<int> expected(tasksPerThread);
  std::iota(expected.begin(), expected.end(), 0);
  for (const auto& own : order) EXPECT_EQ(expected, own);
}

TEST(SerialQueue, SyncReturnsWhenItsTaskAndAllBeforeItHaveRun) {
  std::vector<std::string> order;
  SerialQueue queue("sync");
  queue.async([&] { order.emplace_back("before"); });
  queue.sync([&] { order.emplace_back("sync"); });
  EXPECT_THAT(order, ElementsAre("before", "sync"));
}

TEST(SerialQueue, ABarrierSeesWhatEarlierTasksWroteAndIsOverWhenLaterOnesStart) {
  std::vector<std::string> order;
  {
    SerialQueue queue("barrier");
    queue.async([&] { order.emplace_back("before"); });
    queue.barrierSync([&] {
      queue.async([&] { order.emplace_back("after"); });
      order.emplace_back("barrier");
    });
  }
  EXPECT_THAT(order, ElementsAre("before", "barrier", "after"));
}

TEST(SerialQueue, ATaskQueuedByATaskRunsBehindTheOnesThatWaitAlready) {
  std::vector<std::string> order;
  {
    SerialQueue queue("nested");
    std::promise<void> secondIsQueued;
    queue.async([&] {
      secondIsQueued.get_future().wait();
      queue.async([&] { order.emplace_back("queued by the first"); });
      order.emplace_back("first");
    });
    queue.async([&] { order.emplace_back("second"); });
    secondIsQueued.set_value();
    // Destroying must find the nested task queued: it is, once the first has ended.
    queue.sync([] {});
  }
  EXPECT_THAT(order, ElementsAre("first", "second", "queued by the first"));
}

TEST(SerialQueue, ATaskThatBlocksDoesNotHoldUpAnotherQueue) {
  std::promise<void> release;
  SerialQueue blocked("blocked");
  blocked.async([&] { release.get_future().wait(); });
  SerialQueue other("other");
  bool hasRun = false;
  other.sync([&] { hasRun = true; });
  EXPECT_TRUE(hasRun);
  release.set_value();
}

TEST(SerialQueue, AllItsTasksRunOnOneThreadThatIsNotTheCallers) {
  SerialQueue queue("one");
  std::thread::id first;
  std::thread::id second;
  queue.sync([&] { first = std::this_thread::get_id(); });
  queue.sync([&] { second = std::this_thread::get_id(); });
  EXPECT_EQ(first, second);
  EXPECT_NE(std::this_thread::get_id(), first);
}

TEST(SerialQueue, TheThreadCarriesTheLabel) {
  SerialQueue queue("log");
  std::string name;
  queue.sync([&] { name = nameOfThisThread(); });
  EXPECT_EQ("log", name);
}

TEST(SerialQueue, ALongLabelNamesTheThreadWithItsFirstFifteenBytes) {
  SerialQueue queue("com.example.kdx.readQueue");
  std::string name;
  queue.sync([&] { name = nameOfThisThread(); });
  EXPECT_EQ("com.example.kdx", name);
}

TEST(SerialQueue, StartsNoThreadBeforeItsFirstTask) {
  SerialQueue queue("idle");
  EXPECT_EQ(0, threadsNamed("idle"));
  EXPECT_FALSE(queue.hasStarted());

  queue.sync([] { EXPECT_EQ(1, threadsNamed("idle")); });

  EXPECT_TRUE(queue.hasStarted());
}

TEST(SerialQueue, AQueueWithoutTasksCanBeDestroyed) {
  auto queue = std::make_unique<SerialQueue>("unused");
  queue.reset();
  EXPECT_EQ(0, threadsNamed("unused"));
}

TEST(SerialQueue, DestroyingItRunsEverythingThatIsQueued) {
  int hasRun = 0;
  std::promise<void> release;
  auto queue = std::make_unique<SerialQueue>("destroyed");
  queue->async([&] { release.get_future().wait(); });
  for (int task = 0; task < 100; ++task) queue->async([&] { ++hasRun; });
  release.set_value();
  queue.reset();
  EXPECT_EQ(100, hasRun);
}

TEST(SerialQueue, ItsLastTaskMayDropTheLastReferenceAndTheThreadEndsBehindIt) {
  auto over = std::make_shared<std::promise<void>>();
  std::future<void> threadIsOver = over->get_future();
  bool wentOn = false;
  auto queue = std::make_shared<SerialQueue>("selfdestroyed");
  SerialQueue& tasks = *queue;
  tasks.async([queue = std::move(queue), over = std::move(over), &wentOn]() mutable {
    tellTheEndOfThisThread(std::move(over));
    queue.reset();
    wentOn = true;
  });
  threadIsOver.wait();
  EXPECT_TRUE(wentOn);
}

TEST(SerialQueue, ATaskThatIsOverHoldsNothingAnyMore) {
  SerialQueue queue("release");
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  queue.async([held = std::move(held)] { EXPECT_EQ(1, *held); });
  queue.sync([] {});
  EXPECT_TRUE(watched.expired());
}

TEST(SerialQueue, KnowsItsOwnTasksFromThoseOfOthers) {
  SerialQueue queue("own");
  SerialQueue other("other");
  EXPECT_FALSE(queue.isCurrentQueue());
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrentQueue());
    EXPECT_FALSE(other.isCurrentQueue());
  });
  EXPECT_FALSE(queue.isCurrentQueue());
}

TEST(SerialQueueDeathTest, SyncFromItsOwnTaskIsAFailedAssertion) {
  if (isEmulated()) GTEST_SKIP() << noSecondStart;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        SerialQueue queue("own");
        queue.sync([&] { queue.sync([] {}); });
      },
      testing::KilledBySignal(SIGABRT), "assertion failed: !isCurrentQueue\\(\\), in sync");
}

TEST(SerialQueueDeathTest, ABarrierFromItsOwnTaskIsAFailedAssertion) {
  if (isEmulated()) GTEST_SKIP() << noSecondStart;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        SerialQueue queue("own");
        queue.sync([&] { queue.barrierSync([] {}); });
      },
      testing::KilledBySignal(SIGABRT), "assertion failed");
}

}  // namespace
