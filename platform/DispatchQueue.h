#pragma once

#include "platform/WorkerThreads.h"

namespace platform {

// A queue that runs tasks on its own threads. Tasks start in the order in which they were queued. A task must not throw and
// must not wait for the queue that it runs on.
class DispatchQueue {
 public:
  DispatchQueue() = default;
  virtual ~DispatchQueue() = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  // Queues the task and returns at once. What the task refers to must live until it has run.
  virtual void async(Task task) = 0;

  // Runs the task after all tasks queued earlier have ended and before any task queued later starts. Returns when it has
  // run. What the earlier tasks wrote is visible to the task, and to the caller afterwards.
  virtual void barrierSync(const Task& task) = 0;
};

}  // namespace platform
