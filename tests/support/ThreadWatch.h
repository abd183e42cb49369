#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

// The name of the calling thread in the system.
std::string nameOfThisThread();

// The state of a thread of this process: 'R' if it runs or could run, 'S' if it sleeps in the system; ' ' if there is no such
// thread.
char stateOf(pid_t thread);

// Fulfils the promise when the calling thread ends. The thread shares the promise: on the stack of the waiting thread it could
// be destroyed while this thread is still inside set_value.
void tellTheEndOfThisThread(std::shared_ptr<std::promise<void>> over);

// A thread that a test can watch until it waits for something.
class WatchedThread {
 public:
  explicit WatchedThread(const std::function<void()>& work);
  ~WatchedThread();
  WatchedThread(const WatchedThread&) = delete;
  WatchedThread& operator=(const WatchedThread&) = delete;

  // Returns when the thread sleeps in the system and `condition` holds, or the thread has ended.
  void waitUntilBlocked(const std::function<bool()>& condition = [] { return true; }) const;
  void join();

 private:
  std::atomic<pid_t> _id = 0;
  std::atomic<bool> _ended = false;
  std::thread _thread;
};
