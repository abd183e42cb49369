#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"

namespace platform {

// Runs its tasks side by side. There is a thread for every task that has not ended, however many, so tasks may block or
// wait for one another; threads are kept for later tasks. Destroying the queue waits until every task has run; its own
// tasks must not destroy it.
class ConcurrentQueue final : public DispatchQueue {
 public:
  explicit ConcurrentQueue(std::string label) : _workers(std::move(label)) {}

  void async(Task task) override;

  // Runs on the calling thread.
  void barrierSync(const Task& task) override;

  // Calls task(0) ... task(iterations - 1) side by side, the last one on the calling thread, and returns when all of
  // them have ended.
  void apply(std::size_t iterations, const std::function<void(std::size_t)>& task);

 private:
  void start(Task task);  // with _mutex held
  void taskEnded();

  std::mutex _mutex;
  std::condition_variable _changed;
  std::size_t _unfinished = 0;       // tasks queued and not ended; guarded by _mutex
  std::size_t _threads = 0;          // guarded by _mutex
  bool _barrier = false;             // a barrier waits or runs; guarded by _mutex
  std::vector<Task> _behindBarrier;  // queued since then; guarded by _mutex
  WorkerThreads _workers;
};

}  // namespace platform
