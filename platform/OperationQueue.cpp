#include "platform/OperationQueue.h"

#include <utility>

#include "platform/TasksHere.h"

namespace platform {

void OperationQueue::addOperationWithBlock(Task operation) {
  if (TasksHere::areWanted()) return operation();
  _unfinished.enter();
  _workers.postAndStart(
      [this, operation = std::move(operation)]() mutable {
        operation();
        // Frees what the operation holds before it counts as finished.
        operation = nullptr;
        _unfinished.leave();
      },
      _maxConcurrentOperationCount);
}

}  // namespace platform
