#include "platform/Processors.h"

#include <unistd.h>

#include <ctime>
#include <tuple>

namespace platform {

namespace {

thread_local std::optional<std::size_t> processorLeftAlone;

}  // namespace

std::optional<std::size_t> currentProcessor() {
  const int processor = ::sched_getcpu();
  if (processor < 0 || processor >= CPU_SETSIZE) return std::nullopt;
  return static_cast<std::size_t>(processor);
}

ThreadNumber numberOfThisThread() {
  return ::gettid();
}

std::chrono::nanoseconds processorTimeOfThisThread() {
  timespec time{};
  std::ignore = ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

UsableProcessors::UsableProcessors() {
  if (::sched_getaffinity(0, sizeof _all, &_all) == 0) _count = static_cast<std::size_t>(CPU_COUNT(&_all));
}

void UsableProcessors::keepThisThreadOff(std::optional<std::size_t> processor) const {
  if (processor != processorLeftAlone && keepThreadOff(numberOfThisThread(), processor)) processorLeftAlone = processor;
}

bool UsableProcessors::keepThreadOff(ThreadNumber thread, std::optional<std::size_t> processor) const {
  if (_count < 2) return false;
  cpu_set_t others = _all;
  if (processor) CPU_CLR(*processor, &others);
  return ::sched_setaffinity(thread, sizeof others, &others) == 0;
}

}  // namespace platform
