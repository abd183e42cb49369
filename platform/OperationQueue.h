#pragma once

#include <cstddef>
#include <string>

#include "platform/DispatchGroup.h"
#include "platform/WorkerThreads.h"

namespace platform {

// Runs operations on threads of its own, at most a given number at a time, started in the order added, and counts those
// that have not ended. Any thread may call it; an operation must neither wait for its own queue nor destroy it.
class OperationQueue {
 public:
  explicit OperationQueue(std::string label) : _workers(std::move(label)) {}
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  // At least 1. To be called before the first operation is added; 1 when it is not.
  void setMaxConcurrentOperationCount(std::size_t count) { _maxConcurrentOperationCount = count; }

  // Queues the operation and returns. What it refers to must live until it has run; it must not throw.
  void addOperationWithBlock(Task operation);

  // Returns when no operation that was added is left; what they wrote is visible then.
  void waitUntilAllOperationsAreFinished() { _unfinished.wait(); }

 private:
  std::size_t _maxConcurrentOperationCount = 1;
  DispatchGroup _unfinished;
  WorkerThreads _workers;
};

}  // namespace platform
