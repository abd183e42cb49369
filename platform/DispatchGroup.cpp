#include "platform/DispatchGroup.h"

namespace platform {

void DispatchGroup::enter() {
  const MutexLock lock(_state->mutex);
  ++_state->entered;
}

void DispatchGroup::leave() {
  // Keeps the state alive: the waiter may destroy the group as soon as the count is 0. Unlocks before it wakes the waiter,
  // which takes the lock.
  const std::shared_ptr<State> state = _state;
  MutexLock lock(state->mutex);
  const bool isEmpty = --state->entered == 0;
  lock.unlock();
  if (isEmpty) state->empty.notify_all();
}

void DispatchGroup::wait() {
  MutexLock lock(_state->mutex);
  while (_state->entered != 0) lock.wait(_state->empty);
}

}  // namespace platform
