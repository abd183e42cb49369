#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace platform {

using Task = std::function<void()>;

// Working on up to this many bytes (digesting them, for example) takes less time than waking another thread and waiting for it.
inline constexpr std::size_t notWorthAThread = std::size_t{64} << 10;

// The threads of one queue. Tasks start in the order in which they were posted, each on the first free thread. The threads
// belong only to this object, so a blocked task holds up no other queue. Their name is the label (its first 15 bytes, which
// is what the system keeps). There is no thread before addThread. If a thread can't be started, the process ends with a
// message (endProcessForLackOf). Any thread may call any operation.
class WorkerThreads {
 public:
  explicit WorkerThreads(std::string label);
  // Runs everything that was posted, then ends the threads. If it runs on one of them (because the last task owned the last
  // reference to this object), it does not wait for that thread, which ends after the task.
  ~WorkerThreads();
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  void addThread();
  void post(Task task);

  // Posts the task. After the first task, adds `threads` threads, which then find work at once: going to sleep and being woken
  // would be most of the cost of a short-lived queue.
  void postAndStart(Task task, std::size_t threads = 1);
  // True once postAndStart has added its threads.
  [[nodiscard]] bool hasStarted() const;
  [[nodiscard]] bool isCurrentThread() const;

 private:
  struct State;
  static void addThread(const std::shared_ptr<State>& state);
  std::shared_ptr<State> _state;
};

}  // namespace platform
