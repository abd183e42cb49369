#pragma once

namespace platform {

// While one exists, every task that this thread gives to a queue runs at once, on this thread, before the call returns; the
// tasks that it queues in turn as well. For work so small that the threads of the queues would cost more than they save: a
// program with many such jobs runs them side by side in processes.
//
// No queue that the tasks meet may have work of other threads at the time: it would not be waited for.
class TasksHere {
 public:
  TasksHere();
  ~TasksHere();
  TasksHere(const TasksHere&) = delete;
  TasksHere& operator=(const TasksHere&) = delete;

  // Whether there is one on this thread.
  static bool areWanted();
};

}  // namespace platform
