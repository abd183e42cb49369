#include "platform/DispatchGroup.h"

namespace platform {

void DispatchGroup::enter() {
  const std::lock_guard lock(_mutex);
  ++_entered;
}

void DispatchGroup::leave() {
  const std::lock_guard lock(_mutex);
  // Under the lock: the waiter may destroy the group as soon as it can take the lock again.
  if (--_entered == 0) _empty.notify_all();
}

void DispatchGroup::wait() {
  std::unique_lock lock(_mutex);
  _empty.wait(lock, [this] { return _entered == 0; });
}

}  // namespace platform
