#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/ReadBuffers.h"
#include "platform/SerialQueue.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ThreadWatch.h"

namespace {

using Buffer = std::shared_ptr<std::byte>;

// Expects that the next buffer comes only when `release` has run.
void expectTheNextBufferToWaitFor(const std::shared_ptr<ReadBuffers>& buffers, const std::function<void()>& release) {
  std::atomic<bool> released = false;
  bool cameAfterTheRelease = false;
  WatchedThread thread([&] {
    const Buffer buffer = buffers->next();
    cameAfterTheRelease = released;
  });
  thread.waitUntilBlocked();
  released = true;
  release();
  thread.join();
  EXPECT_TRUE(cameAfterTheRelease);
}

TEST(ReadBuffers, TellsTheSizeOfItsBuffers) {
  EXPECT_EQ(3 * MiB, ReadBuffers::make(3 * MiB)->bufferSize());
}

TEST(ReadBuffers, ABufferStartsOnAPageAndCanBeFilledToItsEnd) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{4095}, 4 * KiB, MiB + 1, 10 * MiB}) {
    const Buffer buffer = ReadBuffers::make(size)->next();
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(buffer.get()) % 4096) << size;
    std::fill_n(buffer.get(), size, std::byte{0xab});
    EXPECT_EQ(std::byte{0xab}, buffer.get()[size - 1]) << size;
  }
}

TEST(ReadBuffers, TheTwoBuffersOfACallAreDifferentMemory) {
  const auto buffers = ReadBuffers::make(MiB);
  const Buffer first = buffers->next();
  const Buffer second = buffers->next();
  std::fill_n(first.get(), MiB, std::byte{1});
  std::fill_n(second.get(), MiB, std::byte{2});
  EXPECT_EQ(std::byte{1}, first.get()[0]);
  EXPECT_EQ(std::byte{1}, first.get()[MiB - 1]);
}

TEST(ReadBuffers, ABufferGivenBackIsUsedAgain) {
  const auto buffers = ReadBuffers::make(MiB);
  std::set<std::byte*> addresses;
  for (int i = 0; i < 10; ++i) addresses.insert(buffers->next().get());
  EXPECT_EQ(1u, addresses.size());
}

TEST(ReadBuffers, ACallThatHoldsOneBufferWhileItFillsTheOtherUsesTwoInAll) {
  const auto buffers = ReadBuffers::make(MiB);
  std::set<std::byte*> addresses;
  Buffer previous;
  for (int i = 0; i < 10; ++i) {
    Buffer next = buffers->next();
    addresses.insert(next.get());
    previous = std::move(next);
  }
  EXPECT_EQ(2u, addresses.size());
}

TEST(ReadBuffers, ALaterCallUsesTheMemoryOfAnEarlierOne) {
  const std::byte* const first = ReadBuffers::make(MiB)->next().get();
  EXPECT_EQ(first, ReadBuffers::make(MiB)->next().get());
}

TEST(ReadBuffers, ALaterCallWithLargerBuffersGetsThemWhole) {
  ReadBuffers::make(MiB)->next().reset();
  const Buffer larger = ReadBuffers::make(3 * MiB)->next();
  std::fill_n(larger.get(), 3 * MiB, std::byte{7});
  EXPECT_EQ(std::byte{7}, larger.get()[3 * MiB - 1]);
}

TEST(ReadBuffers, AThirdBufferWaitsUntilOneIsGivenBack) {
  const auto buffers = ReadBuffers::make(MiB);
  Buffer first = buffers->next();
  const Buffer second = buffers->next();
  expectTheNextBufferToWaitFor(buffers, [&] { first.reset(); });
}

TEST(ReadBuffers, ABufferIsGivenBackWhenItsLastCopyGoes) {
  const auto buffers = ReadBuffers::make(MiB);
  Buffer first = buffers->next();
  Buffer copy = first;
  const Buffer second = buffers->next();
  first.reset();
  expectTheNextBufferToWaitFor(buffers, [&] { copy.reset(); });
}

TEST(ReadBuffers, ABufferCanBeGivenBackOnAnotherThread) {
  const auto buffers = ReadBuffers::make(MiB);
  Buffer first = buffers->next();
  const Buffer second = buffers->next();
  expectTheNextBufferToWaitFor(buffers, [&] { std::thread([&] { first.reset(); }).join(); });
}

TEST(ReadBuffers, ABufferOutlivesTheCallThatTookIt) {
  auto buffers = ReadBuffers::make(MiB);
  const Buffer buffer = buffers->next();
  buffers.reset();
  std::fill_n(buffer.get(), MiB, std::byte{5});
  EXPECT_EQ(std::byte{5}, buffer.get()[MiB - 1]);
}

struct Limit : NamedRow {
  std::size_t bufferSize;
  std::size_t buffers;  // that may be in use at once
};

class SharedMemoryLimit : public testing::TestWithParam<Limit> {};

TEST_P(SharedMemoryLimit, CallsHoldTwoBuffersEachUpToItAndThenWait) {
  // None of the memory is touched.
  std::vector<Buffer> held;
  std::vector<std::shared_ptr<ReadBuffers>> calls;
  while (held.size() < GetParam().buffers) {
    if (held.size() % 2 == 0) calls.push_back(ReadBuffers::make(GetParam().bufferSize));
    held.push_back(calls.back()->next());
  }
  const bool lastHoldsOne = held.size() % 2 == 1;
  const auto waiting = lastHoldsOne ? calls.back() : ReadBuffers::make(GetParam().bufferSize);
  expectTheNextBufferToWaitFor(waiting, [&] { held.front().reset(); });
}

INSTANTIATE_TEST_SUITE_P(ReadBuffers, SharedMemoryLimit,
                         testing::Values(Limit{"OfOneMiB", MiB, 50}, Limit{"OfTenMiB", 10 * MiB, 5},
                                         Limit{"OfTwelveMiB", 12 * MiB, 5}, Limit{"OfFiveMiB", 5 * MiB, 10},
                                         Limit{"OfAHundredMiB", 100 * MiB, 5}),
                         rowName);

TEST(ReadBuffers, ASecondBufferWaitsWhileItWouldTakeTheFirstOfAnotherCall) {
  const auto first = ReadBuffers::make(10 * MiB);
  const auto second = ReadBuffers::make(10 * MiB);
  const auto third = ReadBuffers::make(10 * MiB);
  auto fourth = ReadBuffers::make(10 * MiB);
  const std::vector<Buffer> held{first->next(), first->next(), second->next()};
  // Three of five are in use and two calls hold none.
  expectTheNextBufferToWaitFor(second, [&] { fourth.reset(); });
}

TEST(ReadBuffers, EveryCallComesByOneBufferHoweverManyCallsThereAre) {
  std::vector<std::shared_ptr<ReadBuffers>> calls;
  std::vector<Buffer> held;
  for (int i = 0; i < 32; ++i) calls.push_back(ReadBuffers::make(10 * MiB));
  for (const auto& call : calls) held.push_back(call->next());
  EXPECT_EQ(32u, held.size());
  EXPECT_EQ(32u, std::set<Buffer>(held.begin(), held.end()).size());
  expectTheNextBufferToWaitFor(calls.front(), [&] {
    // Down to four of five in use; calls that end claim nothing.
    held.resize(4);
    calls.resize(4);
  });
}

struct Crowd : NamedRow {
  int calls;
  int mostInUse;
};

class CallsSideBySide : public testing::TestWithParam<Crowd> {};

TEST_P(CallsSideBySide, AllComeToTheirEndWithinTheLimit) {
  constexpr int rounds = 40;
  std::atomic<int> inUse = 0;
  std::atomic<int> most = 0;
  std::atomic<int> workedOn = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < GetParam().calls; ++i) {
    threads.emplace_back([&] {
      const auto buffers = ReadBuffers::make(10 * MiB);
      platform::SerialQueue queue("work");
      for (int round = 0; round < rounds; ++round) {
        Buffer buffer = buffers->next();
        const int now = ++inUse;
        for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
        }
        queue.async([&inUse, &workedOn, buffer = std::move(buffer)]() mutable {
          buffer.get()[0] = std::byte{1};
          ++workedOn;
          --inUse;
          buffer.reset();
        });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(GetParam().calls * rounds, workedOn);
  EXPECT_LE(most, GetParam().mostInUse);
}

INSTANTIATE_TEST_SUITE_P(ReadBuffers, CallsSideBySide,
                         testing::Values(Crowd{"OneCall", 1, 2}, Crowd{"TwoCalls", 2, 4}, Crowd{"ThreeCalls", 3, 5},
                                         Crowd{"FiveCalls", 5, 5}, Crowd{"ThirtyTwoCalls", 32, 32}),
                         rowName);

// Memory that cannot be had.

constexpr bool allocatorIsTheSystems() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return false;
#else
  return true;
#endif
}

TEST(ReadBuffersDeathTest, MemoryThatCannotBeHadEndsTheProcessWithAMessage) {
  if (!allocatorIsTheSystems()) GTEST_SKIP() << "a sanitizer's allocator ends the process by itself";
  EXPECT_EXIT(ReadBuffers::make(std::size_t{1} << 62)->next(), testing::ExitedWithCode(1),
              testing::HasSubstr("could not get 4611686018427387904 bytes of memory"));
}

}  // namespace
