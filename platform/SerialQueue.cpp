#include "platform/SerialQueue.h"

#include <utility>

#include "platform/DispatchGroup.h"
#include "platform/Process.h"
#include "platform/TasksHere.h"

namespace platform {

void SerialQueue::async(Task task) {
  if (TasksHere::areWanted()) return task();
  _worker.postAndStart(std::move(task));
}

void SerialQueue::sync(const Task& task) {
  if (isCurrentQueue()) assertionFailed("!isCurrentQueue()", "sync");
  DispatchGroup done;
  done.enter();
  async([&] {
    task();
    done.leave();
  });
  done.wait();
}

}  // namespace platform
