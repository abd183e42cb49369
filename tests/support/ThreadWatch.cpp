#include "tests/support/ThreadWatch.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <fstream>
#include <utility>

namespace {

struct EndOfThread {
  std::shared_ptr<std::promise<void>> over;
  ~EndOfThread() {
    if (over) over->set_value();
  }
};
thread_local EndOfThread endOfThisThread;

}  // namespace

std::string nameOfThisThread() {
  std::array<char, 16> name{};
  EXPECT_EQ(0, ::pthread_getname_np(::pthread_self(), name.data(), name.size()));
  return name.data();
}

char stateOf(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string facts;
  std::getline(file, facts);
  // The state follows the name, which is in brackets.
  const std::size_t name = facts.rfind(')');
  return name == std::string::npos || name + 2 >= facts.size() ? ' ' : facts[name + 2];
}

void tellTheEndOfThisThread(std::shared_ptr<std::promise<void>> over) {
  endOfThisThread.over = std::move(over);
}

WatchedThread::WatchedThread(const std::function<void()>& work)
    : _thread([this, work] {
        _id = ::gettid();
        work();
        _ended = true;
      }) {}

WatchedThread::~WatchedThread() {
  join();
}

void WatchedThread::waitUntilBlocked(const std::function<bool()>& condition) const {
  while (!_ended && (_id == 0 || !condition() || stateOf(_id) != 'S')) std::this_thread::yield();
}

void WatchedThread::join() {
  if (_thread.joinable()) _thread.join();
}
