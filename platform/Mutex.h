#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Locks for which clang++ proves at compile time that the data they guard is used only with the lock (-Wthread-safety).
// Other compilers see plain locks.
#ifdef __clang__
#define KDX_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define KDX_THREAD_ANNOTATION(annotation)
#endif

#define KDX_GUARDED_BY(mutex) KDX_THREAD_ANNOTATION(guarded_by(mutex))
#define KDX_REQUIRES(mutex) KDX_THREAD_ANNOTATION(requires_capability(mutex))

namespace platform {

template <typename Underlying>
class KDX_THREAD_ANNOTATION(capability("mutex")) BasicMutex {
 public:
  void lock() KDX_THREAD_ANNOTATION(acquire_capability()) { _mutex.lock(); }
  void unlock() KDX_THREAD_ANNOTATION(release_capability()) { _mutex.unlock(); }

 private:
  template <typename>
  friend class MutexLock;
  Underlying _mutex;
};

using Mutex = BasicMutex<std::mutex>;
// The thread that holds the lock may take it again.
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds the lock of a mutex while it exists, except between unlock and lock.
template <typename Underlying>
class KDX_THREAD_ANNOTATION(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(BasicMutex<Underlying>& mutex) KDX_THREAD_ANNOTATION(acquire_capability(mutex))
      : _lock(mutex._mutex) {}
  ~MutexLock() KDX_THREAD_ANNOTATION(release_capability()) = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() KDX_THREAD_ANNOTATION(acquire_capability()) { _lock.lock(); }
  void unlock() KDX_THREAD_ANNOTATION(release_capability()) { _lock.unlock(); }

  // Releases the lock until the condition is notified. May return without a reason, so call it in a loop.
  void wait(std::condition_variable& condition) { condition.wait(_lock); }
  // The same, at the latest until then. False when the time is over.
  bool waitUntil(std::condition_variable& condition, std::chrono::steady_clock::time_point latest) {
    return condition.wait_until(_lock, latest) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<Underlying> _lock;
};

}  // namespace platform
