#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// The exit status of a child process whose work returned instead of ending the process.
inline constexpr int cameBack = 77;

// The result of a child process.
struct ChildRun {
  int exitStatus = -1;  // 128 + signal when a signal ended it
  std::string output;   // which output it is, says the function that ran the child
};

// Does the work in a child process and returns its exit status, or 128 + signal.
// To be called before this process has started a thread that the work needs.
int statusOfChild(const std::function<void()>& work);

// The processes that the process has started and that still run: the workers of an offload.
std::vector<pid_t> childrenOf(pid_t process);

// The same, with everything that the child writes to descriptors 1 and 2, in order.
ChildRun runInChild(const std::function<void()>& task);
