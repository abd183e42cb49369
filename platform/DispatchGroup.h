#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>

#include "platform/Mutex.h"

namespace platform {

// Counts pieces of work under way and lets threads wait until there are none. Any thread may enter, leave and wait.
// What a thread wrote before it left is visible to the threads whose wait this ended.
class DispatchGroup {
 public:
  void enter();
  // Once for every enter. The group may be destroyed as soon as a wait has returned.
  void leave();
  // Waits, without a time limit, until every enter was followed by its leave.
  void wait();

 private:
  struct State {
    Mutex mutex;
    std::condition_variable empty;
    uint64_t entered KDX_GUARDED_BY(mutex) = 0;
  };
  std::shared_ptr<State> _state = std::make_shared<State>();
};

}  // namespace platform
