#include "platform/OperationQueue.h"

#include <utility>

namespace platform {

void OperationQueue::addOperationWithBlock(Task operation) {
  std::call_once(_start, [this] {
    for (std::size_t thread = 0; thread < _maxConcurrentOperationCount; ++thread) _workers.addThread();
  });
  _unfinished.enter();
  _workers.post([this, operation = std::move(operation)]() mutable {
    operation();
    // What the operation holds on to is let go before it counts as finished.
    operation = nullptr;
    _unfinished.leave();
  });
}

}  // namespace platform
