#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <cstddef>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ConcurrentQueue.h"
#include "tests/support/ThreadWatch.h"

using platform::ConcurrentQueue;
using testing::Each;
using testing::ElementsAre;

namespace {

TEST(ConcurrentQueue, TasksMayWaitForOneAnotherHoweverMany) {
  constexpr int tasks = 32;
  std::barrier meeting(tasks);
  std::atomic<int> met = 0;
  {
    ConcurrentQueue queue("meeting");
    for (int task = 0; task < tasks; ++task) {
      queue.async([&] {
        meeting.arrive_and_wait();
        ++met;
      });
    }
  }
  EXPECT_EQ(tasks, met);
}

TEST(ConcurrentQueue, ATaskThatBlocksHoldsUpNeitherItsOwnQueueNorAnother) {
  std::promise<void> release;
  ConcurrentQueue blocked("blocked");
  ConcurrentQueue other("other");
  blocked.async([&] { release.get_future().wait(); });
  std::latch bothRan(2);
  blocked.async([&] { bothRan.count_down(); });
  other.async([&] { bothRan.count_down(); });
  bothRan.wait();
  release.set_value();
}

TEST(ConcurrentQueue, ItsThreadsCarryTheLabel) {
  std::string name;
  {
    ConcurrentQueue queue("write");
    queue.async([&] { name = nameOfThisThread(); });
  }
  EXPECT_EQ("write", name);
}

TEST(ConcurrentQueue, DestroyingItRunsEverythingThatIsQueued) {
  std::atomic<int> hasRun = 0;
  std::promise<void> release;
  auto queue = std::make_unique<ConcurrentQueue>("destroyed");
  queue->async([&] {
    release.get_future().wait();
    queue->async([&] { ++hasRun; });
    ++hasRun;
  });
  for (int task = 0; task < 50; ++task) queue->async([&] { ++hasRun; });
  queue->async([&] { release.set_value(); });
  queue->barrierSync([] {});
  queue.reset();
  EXPECT_EQ(52, hasRun);
}

TEST(ConcurrentQueue, ItsLastTaskMayHoldTheLastReference) {
  auto over = std::make_shared<std::promise<void>>();
  std::future<void> threadIsOver = over->get_future();
  auto queue = std::make_shared<ConcurrentQueue>("selfdestroyed");
  const std::weak_ptr<ConcurrentQueue> watched = queue;
  std::promise<void> onlyTheTaskHoldsIt;
  queue->async([held = queue, over = std::move(over), &onlyTheTaskHoldsIt]() mutable {
    tellTheEndOfThisThread(std::move(over));
    onlyTheTaskHoldsIt.get_future().wait();
  });
  queue.reset();
  onlyTheTaskHoldsIt.set_value();
  threadIsOver.wait();
  EXPECT_TRUE(watched.expired());
}

// Barriers

TEST(ConcurrentQueue, ABarrierRunsOnTheCallingThreadOnceAllEarlierTasksHaveEnded) {
  ConcurrentQueue queue("barrier");
  constexpr std::size_t tasks = 16;
  std::array<int, tasks> written{};  // plain: the barrier must make it visible
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  for (std::size_t task = 0; task < tasks; ++task) {
    queue.async([&written, released, task] {
      released.wait();
      written[task] = 1;
    });
  }
  std::array<int, tasks> seen{};
  std::thread::id thread;
  release.set_value();
  queue.barrierSync([&] {
    seen = written;
    thread = std::this_thread::get_id();
  });
  EXPECT_THAT(seen, Each(1));
  EXPECT_EQ(std::this_thread::get_id(), thread);
}

TEST(ConcurrentQueue, TasksQueuedInTheBarrierTaskStartWhenItIsOverInTheirOrder) {
  std::vector<std::string> order;
  std::mutex mutex;
  const auto note = [&](const char* what) {
    const std::lock_guard lock(mutex);
    order.emplace_back(what);
  };
  {
    ConcurrentQueue queue("barrier");
    queue.async([] {});
    queue.barrierSync([&] {
      std::jthread([&] { queue.async([&] { note("later"); }); }).join();
      // Every chance for a task that does not wait.
      for (int turn = 0; turn < 1000; ++turn) std::this_thread::yield();
      note("barrier");
    });
  }
  EXPECT_THAT(order, ElementsAre("barrier", "later"));
}

TEST(ConcurrentQueue, ATaskThatQueuesAnotherWhileABarrierIsComingHoldsUpNeither) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> hasRun = 0;
    {
      ConcurrentQueue queue("nested");
      std::latch started(1);
      queue.async([&] {
        started.count_down();
        queue.async([&] { ++hasRun; });
        ++hasRun;
      });
      started.wait();
      queue.barrierSync([&] { EXPECT_GE(hasRun, 1); });
    }
    ASSERT_EQ(2, hasRun);
  }
}

TEST(ConcurrentQueue, BarriersOfManyThreadsRunOneAtATime) {
  ConcurrentQueue queue("barriers");
  int running = 0;  // plain: two barriers at once would be a race
  int hasRun = 0;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&] {
        for (int round = 0; round < 50; ++round) {
          queue.async([] {});
          queue.barrierSync([&] {
            EXPECT_EQ(0, running++);
            ++hasRun;
            --running;
          });
        }
      });
    }
  }
  EXPECT_EQ(200, hasRun);
}

TEST(ConcurrentQueue, ABarrierOnAQueueWithoutTasksRunsAtOnce) {
  ConcurrentQueue queue("empty");
  bool hasRun = false;
  queue.barrierSync([&] { hasRun = true; });
  EXPECT_TRUE(hasRun);
}

// Apply

TEST(ConcurrentQueue, ApplyCallsEveryIndexOnceAndReturnsWhenAllHaveEnded) {
  ConcurrentQueue queue("apply");
  std::vector<int> calls(100);  // plain: apply must make it visible
  queue.apply(calls.size(), [&](std::size_t index) { ++calls[index]; });
  EXPECT_THAT(calls, Each(1));
}

TEST(ConcurrentQueue, TheIterationsOfApplyMayWaitForOneAnother) {
  constexpr std::size_t iterations = 24;
  ConcurrentQueue queue("apply");
  std::barrier meeting(static_cast<std::ptrdiff_t>(iterations));
  std::atomic<std::size_t> met = 0;
  for (int round = 0; round < 5; ++round) {
    queue.apply(iterations, [&](std::size_t) {
      meeting.arrive_and_wait();
      ++met;
    });
  }
  EXPECT_EQ(5 * iterations, met);
}

TEST(ConcurrentQueue, ApplyOfNoIterationsCallsNothing) {
  ConcurrentQueue queue("apply");
  bool called = false;
  queue.apply(0, [&](std::size_t) { called = true; });
  EXPECT_FALSE(called);
}

TEST(ConcurrentQueue, ApplyOfOneIterationRunsOnTheCallingThread) {
  ConcurrentQueue queue("apply");
  std::thread::id thread;
  queue.apply(1, [&](std::size_t index) {
    EXPECT_EQ(0U, index);
    thread = std::this_thread::get_id();
  });
  EXPECT_EQ(std::this_thread::get_id(), thread);
}

TEST(ConcurrentQueue, TheLastIterationOfApplyRunsOnTheCallingThreadAndNoOther) {
  ConcurrentQueue queue("apply");
  std::vector<std::thread::id> threads(4);
  queue.apply(threads.size(), [&](std::size_t index) { threads[index] = std::this_thread::get_id(); });
  for (std::size_t index = 0; index < 3; ++index) EXPECT_NE(std::this_thread::get_id(), threads[index]);
  EXPECT_EQ(std::this_thread::get_id(), threads[3]);
}

TEST(ConcurrentQueue, ApplyFromSeveralThreadsAtOnceKeepsTheCallsApart) {
  ConcurrentQueue queue("apply");
  std::array<std::vector<int>, 4> calls;
  {
    std::vector<std::jthread> threads;
    for (auto& own : calls) {
      own.resize(20);
      threads.emplace_back([&queue, &own] { queue.apply(own.size(), [&](std::size_t index) { ++own[index]; }); });
    }
  }
  for (const auto& own : calls) EXPECT_THAT(own, Each(1));
}

}  // namespace
