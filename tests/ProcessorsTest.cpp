#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <limits>
#include <optional>
#include <thread>

#include "platform/Processors.h"

namespace {

using namespace std::chrono_literals;

cpu_set_t allowed() {
  cpu_set_t processors;
  EXPECT_EQ(0, ::sched_getaffinity(0, sizeof processors, &processors));
  return processors;
}

bool areSame(const cpu_set_t& some, const cpu_set_t& others) {
  return CPU_EQUAL(&some, &others) != 0;
}

// A system may refuse it altogether.
bool mayChoose() {
  const cpu_set_t all = allowed();
  return ::sched_setaffinity(0, sizeof all, &all) == 0;
}

constexpr const char* needsTwo = "needs two processors, and to be let choose them";

TEST(Processors, UsableOnesAreThoseTheThreadMayRunOn) {
  const cpu_set_t all = allowed();
  EXPECT_EQ(CPU_COUNT(&all), static_cast<int>(platform::UsableProcessors().count()));
}

TEST(Processors, TheCurrentOneIsAUsableOne) {
  const std::optional<std::size_t> processor = platform::currentProcessor();
  ASSERT_TRUE(processor.has_value());
  const cpu_set_t all = allowed();
  EXPECT_TRUE(CPU_ISSET(*processor, &all));
}

TEST(Processors, AThreadKeptOffOneRunsOnAllOthersUntilItIsKeptOffNone) {
  const platform::UsableProcessors usable;
  if (usable.count() < 2 || !mayChoose()) GTEST_SKIP() << needsTwo;
  const cpu_set_t all = allowed();
  const std::size_t processor = platform::currentProcessor().value();

  usable.keepThisThreadOff(processor);
  cpu_set_t others = all;
  CPU_CLR(processor, &others);
  EXPECT_TRUE(areSame(others, allowed()));
  EXPECT_NE(processor, platform::currentProcessor());

  usable.keepThisThreadOff(std::nullopt);
  EXPECT_TRUE(areSame(all, allowed()));
}

TEST(Processors, OtherThreadsStayAsTheyAre) {
  const platform::UsableProcessors usable;
  if (usable.count() < 2 || !mayChoose()) GTEST_SKIP() << needsTwo;
  const cpu_set_t all = allowed();
  std::thread([&] { usable.keepThisThreadOff(platform::currentProcessor()); }).join();
  EXPECT_TRUE(areSame(all, allowed()));
}

TEST(Processors, AnotherThreadIsKeptOffOneUntilItIsKeptOffNone) {
  const platform::UsableProcessors usable;
  if (usable.count() < 2 || !mayChoose()) GTEST_SKIP() << needsTwo;
  const cpu_set_t all = allowed();
  const std::size_t processor = platform::currentProcessor().value();
  cpu_set_t others = all;
  CPU_CLR(processor, &others);
  const platform::ThreadNumber thread = platform::numberOfThisThread();

  std::thread([&] { EXPECT_TRUE(usable.keepThreadOff(thread, processor)); }).join();
  EXPECT_TRUE(areSame(others, allowed()));
  std::thread([&] { EXPECT_TRUE(usable.keepThreadOff(thread, std::nullopt)); }).join();
  EXPECT_TRUE(areSame(all, allowed()));
}

TEST(Processors, AThreadThatIsNotThereIsNotKeptOffOne) {
  EXPECT_FALSE(
      platform::UsableProcessors().keepThreadOff(std::numeric_limits<platform::ThreadNumber>::max(), std::nullopt));
}

TEST(Processors, AThreadWithOneIsNotKeptOffIt) {
  if (!mayChoose()) GTEST_SKIP() << "needs to be let choose processors";
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(platform::currentProcessor().value(), &only);
  ASSERT_EQ(0, ::sched_setaffinity(0, sizeof only, &only));
  const platform::UsableProcessors usable;
  EXPECT_EQ(1, usable.count());
  usable.keepThisThreadOff(platform::currentProcessor());
  EXPECT_FALSE(usable.keepThreadOff(platform::numberOfThisThread(), platform::currentProcessor()));
  EXPECT_TRUE(areSame(only, allowed()));
}

TEST(Processors, TimeIsThatOfTheCallingThreadAndNotOfItsWaiting) {
  const auto before = platform::processorTimeOfThisThread();
  std::thread([] {
    while (platform::processorTimeOfThisThread() < 50ms) {
    }
  }).join();
  EXPECT_LT(platform::processorTimeOfThisThread() - before, 50ms);
}

}  // namespace
