#pragma once

#include <cstddef>
#include <string>

#include "platform/DispatchGroup.h"
#include "platform/WorkerThreads.h"

namespace platform {

// Runs operations on its own threads, at most a given number at a time. They start in the order added. Counts the operations
// that have not ended. Any thread may call it; an operation must neither wait for its own queue nor destroy it.
class OperationQueue {
 public:
  explicit OperationQueue(std::string label) : _workers(std::move(label)) {}
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  // At least 1, the default. To be called before the first operation is added.
  void setMaxConcurrentOperationCount(std::size_t count) { _maxConcurrentOperationCount = count; }

  // Queues the operation and returns. What the operation refers to must live until it has run. It must not throw.
  void addOperationWithBlock(Task operation);

  // Returns when all operations have ended. What they wrote is then visible.
  void waitUntilAllOperationsAreFinished() { _unfinished.wait(); }

 private:
  std::size_t _maxConcurrentOperationCount = 1;
  DispatchGroup _unfinished;
  WorkerThreads _workers;
};

}  // namespace platform
