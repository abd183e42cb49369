#pragma once

#include <sched.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>

namespace platform {

// The processor that the calling thread runs on, as a number of the system's. It may be another one at once.
std::optional<std::size_t> currentProcessor();

// A thread, as a number of the system's that is its own while it runs.
using ThreadNumber = pid_t;

ThreadNumber numberOfThisThread();

// What the calling thread has used so far of any processor; zero where the system does not tell.
std::chrono::nanoseconds processorTimeOfThisThread();

// The processors that the system lets a process use. May be shared by threads.
class UsableProcessors {
 public:
  // Those of the calling thread, as they are now.
  UsableProcessors();

  // One where the system does not tell.
  [[nodiscard]] std::size_t count() const { return _count; }

  // From now on the calling thread runs on all of them but this one; with none, on all of them. The system is asked only
  // when that is a change for the thread, so this may be called for every piece of work. Where the system refuses, or
  // there is no other processor, the thread goes on as it was. Not for a thread that keepThreadOff is called for.
  void keepThisThreadOff(std::optional<std::size_t> processor) const;

  // The same for any thread of the process, which must not have ended; the system is asked at every call. False where the
  // thread goes on as it was.
  [[nodiscard]] bool keepThreadOff(ThreadNumber thread, std::optional<std::size_t> processor) const;

 private:
  cpu_set_t _all{};
  std::size_t _count = 1;
};

}  // namespace platform
