#include "platform/OperationQueue.h"

#include <utility>

namespace platform {

void OperationQueue::addOperationWithBlock(Task operation) {
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
