#pragma once

#include <string>

#include "platform/DispatchQueue.h"

namespace platform {

// Runs one task after the other, on one thread of its own that starts with the first task. The destructor waits until every
// task has run. If the last task itself destroys the queue, the thread ends after that task.
class SerialQueue final : public DispatchQueue {
 public:
  explicit SerialQueue(std::string label) : _worker(std::move(label)) {}

  void async(Task task) override;

  // Runs the task on the queue and waits for it. Called from a task of the same queue this would wait for ever, so it is a
  // failed assertion.
  void sync(const Task& task);

  // On a serial queue every task is a barrier.
  void barrierSync(const Task& task) override { sync(task); }

  // True once the first task has been queued and the thread has been started.
  [[nodiscard]] bool hasStarted() const { return _worker.hasStarted(); }
  [[nodiscard]] bool isCurrentQueue() const { return _worker.isCurrentThread(); }

 private:
  WorkerThreads _worker;
};

}  // namespace platform
