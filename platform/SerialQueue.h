#pragma once

#include <string>

#include "platform/DispatchQueue.h"

namespace platform {

// Runs one task after the other, on one thread of its own that starts with the first task. Destroying the queue waits
// until every task has run, except when its own last task destroys it: the thread then ends by itself.
class SerialQueue final : public DispatchQueue {
 public:
  explicit SerialQueue(std::string label) : _worker(std::move(label)) {}

  void async(Task task) override;

  // Runs the task on the queue and waits for it. From a task of this same queue, which could only wait for ever, it is
  // a failed assertion.
  void sync(const Task& task);

  // On a serial queue every task is a barrier.
  void barrierSync(const Task& task) override { sync(task); }

  // True once a task was queued and has a thread to run on.
  [[nodiscard]] bool hasStarted() const { return _worker.hasStarted(); }
  [[nodiscard]] bool isCurrentQueue() const { return _worker.isCurrentThread(); }

 private:
  WorkerThreads _worker;
};

}  // namespace platform
