#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <thread>
#include <vector>

#include "platform/ConcurrentQueue.h"
#include "platform/OperationQueue.h"
#include "platform/SerialQueue.h"
#include "platform/TasksHere.h"

using platform::TasksHere;

namespace {

const std::thread::id nobody;

TEST(TasksHere, TasksOfEveryKindOfQueueHaveRunOnThisThreadWhenTheCallReturns) {
  platform::SerialQueue serial("serial");
  platform::ConcurrentQueue concurrent("concurrent");
  platform::OperationQueue operations("operations");
  std::vector<std::thread::id> threads(5, nobody);
  const TasksHere here;
  serial.async([&] { threads[0] = std::this_thread::get_id(); });
  serial.sync([&] { threads[1] = std::this_thread::get_id(); });
  concurrent.async([&] { threads[2] = std::this_thread::get_id(); });
  concurrent.barrierSync([&] { threads[3] = std::this_thread::get_id(); });
  operations.addOperationWithBlock([&] { threads[4] = std::this_thread::get_id(); });
  EXPECT_THAT(threads, testing::Each(std::this_thread::get_id()));
  operations.waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(serial.hasStarted());
}

TEST(TasksHere, SideBySideMeansOneAfterTheOther) {
  platform::ConcurrentQueue queue("apply");
  std::vector<std::size_t> order;
  const TasksHere here;
  queue.apply(4, [&order](std::size_t index) { order.push_back(index); });
  EXPECT_THAT(order, testing::ElementsAre(0, 1, 2, 3));
}

TEST(TasksHere, WhatATaskQueuesRunsAtOnceToo) {
  platform::SerialQueue outer("outer");
  platform::ConcurrentQueue inner("inner");
  std::vector<int> order;
  const TasksHere here;
  outer.async([&] {
    order.push_back(1);
    inner.async([&order] { order.push_back(2); });
    outer.async([&order] { order.push_back(3); });
    order.push_back(4);
  });
  EXPECT_THAT(order, testing::ElementsAre(1, 2, 3, 4));
}

TEST(TasksHere, QueuesHaveThreadsAgainWhenTheLastOfThemIsGone) {
  platform::SerialQueue queue("again");
  std::thread::id thread;
  const auto note = [&thread] { thread = std::this_thread::get_id(); };
  std::optional<TasksHere> outer(std::in_place);
  { const TasksHere inner; }
  queue.sync(note);
  EXPECT_EQ(std::this_thread::get_id(), thread);
  outer.reset();
  queue.sync(note);
  EXPECT_NE(std::this_thread::get_id(), thread);
}

TEST(TasksHere, TasksOfOtherThreadsRunOnThreadsOfTheQueue) {
  platform::SerialQueue queue("others");
  std::thread::id poster;
  std::thread::id thread;
  const TasksHere here;
  std::thread([&] {
    poster = std::this_thread::get_id();
    queue.sync([&thread] { thread = std::this_thread::get_id(); });
  }).join();
  EXPECT_NE(poster, thread);
  EXPECT_NE(std::this_thread::get_id(), thread);
}

}  // namespace
