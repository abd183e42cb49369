#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <semaphore>
#include <string>

#include "KDXFileTools/kdxoffload/Watched.h"

using kdxoffload::watched;

namespace {

// Holds a thread until it is opened.
struct Gate {
  std::mutex lock;
  std::condition_variable changed;
  bool isOpen = false;

  void open() {
    const std::lock_guard locked(lock);
    isOpen = true;
    changed.notify_all();
  }
  void pass() {
    std::unique_lock locked(lock);
    changed.wait(locked, [this] { return isOpen; });
  }
};

// Goes only when the test says so.
struct TestClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<TestClock>;
  static inline duration time{};
  static time_point now() { return time_point(time); }
};

using Work = std::function<std::string(const std::function<void()>&)>;

}  // namespace

TEST(WatchedTest, TheResultOfTheWorkIsReturned) {
  const Work work = [](const std::function<void()>&) { return "done"; };
  EXPECT_EQ("done", watched<std::string>(60, work, [] {}));
}

TEST(WatchedTest, TheCallerGoesOnMeanwhile) {
  const auto gate = std::make_shared<Gate>();
  const Work work = [gate](const std::function<void()>&) {
    gate->pass();
    return "done";
  };
  EXPECT_EQ("done", watched<std::string>(60, work, [gate] { gate->open(); }));
}

TEST(WatchedTest, WorkThatShowsNoLifeHasNoResult) {
  const auto gate = std::make_shared<Gate>();
  const Work work = [gate](const std::function<void()>&) {
    gate->pass();
    return "too late";
  };
  EXPECT_EQ(std::nullopt, watched<std::string>(0.05, work, [] {}));
  gate->open();
}

TEST(WatchedTest, WorkThatGoesOnMayTakeLongerThanAStall) {
  constexpr int steps = 10;
  const auto turns = std::make_shared<std::counting_semaphore<>>(0);
  const auto taken = std::make_shared<std::counting_semaphore<>>(0);
  const Work work = [=](const std::function<void()>& goesOn) {
    for (int step = 0; step < steps; ++step) {
      turns->acquire();
      goesOn();
      taken->release();
    }
    return "done";
  };
  int looks = 0;
  const auto meanwhile = [&] {
    TestClock::time += std::chrono::seconds(6);
    if (++looks > steps) return;
    turns->release();
    taken->acquire();
  };
  EXPECT_EQ("done", (watched<std::string, TestClock>(10, work, meanwhile)));
  EXPECT_GE(TestClock::time, std::chrono::seconds(60));
}
