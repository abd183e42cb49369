#include "platform/ConcurrentQueue.h"

#include <utility>

#include "platform/DispatchGroup.h"
#include "platform/TasksHere.h"

namespace platform {

void ConcurrentQueue::async(Task task) {
  if (TasksHere::areWanted()) return task();
  const MutexLock lock(_mutex);
  if (_barrier) {
    _behindBarrier.push_back(std::move(task));
  } else {
    start(std::move(task));
  }
}

void ConcurrentQueue::start(Task task) {
  _workers.post([this, task = std::move(task)] {
    task();
    taskEnded();
  });
  // After the task is posted, so that a new thread finds it and does not go to sleep first.
  if (++_unfinished > _threads) {
    _workers.addThread();
    ++_threads;
  }
}

void ConcurrentQueue::taskEnded() {
  MutexLock lock(_mutex);
  const bool isLast = --_unfinished == 0;
  lock.unlock();
  // Unlocked first, because the woken thread takes the lock. The queue is not destroyed before its threads have ended.
  if (isLast) _changed.notify_all();
}

void ConcurrentQueue::barrierSync(const Task& task) {
  MutexLock lock(_mutex);
  while (_barrier) lock.wait(_changed);
  _barrier = true;
  while (_unfinished != 0) lock.wait(_changed);
  lock.unlock();
  task();
  lock.lock();
  _barrier = false;
  for (Task& waiting : std::exchange(_behindBarrier, {})) start(std::move(waiting));
  _changed.notify_all();
}

void ConcurrentQueue::apply(std::size_t iterations, const std::function<void(std::size_t)>& task) {
  if (iterations == 0) return;
  DispatchGroup others;
  for (std::size_t index = 0; index + 1 < iterations; ++index) {
    others.enter();
    async([&, index] {
      task(index);
      others.leave();
    });
  }
  task(iterations - 1);
  others.wait();
}

}  // namespace platform
