#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// What a child process returns with that did its work and was not ended by it.
inline constexpr int cameBack = 77;

// What a child process left.
struct ChildRun {
  int exitStatus = -1;  // 128 + signal when a signal ended it
  std::string output;   // as the function that ran it says
};

// How a child process ends that does the work and nothing else: its exit status, or 128 + signal.
// To be called before this process has started a thread that the work needs.
int statusOfChild(const std::function<void()>& work);

// The processes that the process has started and that still run: the workers of an offload.
std::vector<pid_t> childrenOf(pid_t process);

// The same with all that the child prints: descriptors 1 and 2, in the order in which they were written.
ChildRun runInChild(const std::function<void()>& task);
