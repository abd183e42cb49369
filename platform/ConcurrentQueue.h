#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/Mutex.h"

namespace platform {

// Runs its tasks at the same time. There is a thread for every task that has not ended, without a limit, so tasks may block
// or wait for one another. Threads are kept for later tasks. The destructor waits until every task has run; a task must not
// destroy its own queue.
class ConcurrentQueue final : public DispatchQueue {
 public:
  explicit ConcurrentQueue(std::string label) : _workers(std::move(label)) {}

  void async(Task task) override;

  // Runs on the calling thread.
  void barrierSync(const Task& task) override;

  // Calls task(0) ... task(iterations - 1) at the same time, the last one on the calling thread, and returns when all of
  // them have ended.
  void apply(std::size_t iterations, const std::function<void(std::size_t)>& task);

 private:
  void start(Task task) KDX_REQUIRES(_mutex);
  void taskEnded();

  Mutex _mutex;
  std::condition_variable _changed;
  std::size_t _unfinished KDX_GUARDED_BY(_mutex) = 0;  // tasks queued and not ended
  std::size_t _threads KDX_GUARDED_BY(_mutex) = 0;
  bool _barrier KDX_GUARDED_BY(_mutex) = false;             // a barrier waits or runs
  std::vector<Task> _behindBarrier KDX_GUARDED_BY(_mutex);  // queued since then
  WorkerThreads _workers;
};

}  // namespace platform
