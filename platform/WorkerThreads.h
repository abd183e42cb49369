#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace platform {

using Task = std::function<void()>;

// Up to so many bytes are worked on, digested for example, in less time than another thread takes to wake and answer.
inline constexpr std::size_t notWorthAThread = std::size_t{64} << 10;

// The threads under one queue: tasks are started in the order in which they were posted, each on the first thread that
// is free. The threads belong to this object alone, so a task that blocks holds up nobody else's. They carry the label
// as their name (its first 15 bytes, which is what the system keeps). No thread exists before addThread. When a thread
// cannot be had the process ends with a message (endProcessForLackOf). All operations may be called from any thread.
class WorkerThreads {
 public:
  explicit WorkerThreads(std::string label);
  // Runs everything that was posted, then ends the threads. From one of its own threads (the last task owned the last
  // reference to this object) the threads end by themselves after that task.
  ~WorkerThreads();
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  void addThread();
  void post(Task task);

  // Posts the task and, with the first one, adds the first `threads` threads: after it, so that they find work at once
  // instead of going to sleep and being woken, which would be most of what a short run of a queue costs.
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
