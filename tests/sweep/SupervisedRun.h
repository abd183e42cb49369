#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/ToolRun.h"

// A system call that the tool is about to make. Calls before main, the dynamic loader's, are let through and not told of;
// neither is waiting for another thread (futex): its number varies, it can't fail, and it touches no file.
struct SystemCall {
  std::string name;
  // The path of the file, without the root where it is below it; "output" and "errors" for the standard descriptors. Of a
  // call that concerns no file: the name of its thread.
  std::string where;
  bool isBelowRoot = false;
  std::size_t occurrence =
      1;          // the how manieth of this name at this place; counted like this it is the same in every run
  int error = 0;  // what it failed with by the verdict; 0: it was let through
};

// What becomes of the call.
struct Verdict {
  int error = 0;      // not 0: the call is not made and fails with it
  bool kill = false;  // the process is killed before it makes the call
};

struct SupervisedRun {
  ToolRun run;
  std::vector<SystemCall> calls;  // in the order in which they were judged
  bool endless = false;           // it made calls without end, or none any more, and was killed
};

// True where a process may supervise the calls of another; `whyNot` else says why, for a visible skip.
bool canSupervise(std::string& whyNot);

// Runs the tool and has every one of its calls judged, one after the other, by the calling thread. Any number of threads
// may do so at the same time.
// The system's own supervision of calls (seccomp) instead of strace: strace counts the calls of every thread by itself
// and from the loader's first on, so that the first calls of a worker could never be reached.
SupervisedRun runSupervised(ToolStart start, const std::string& root,
                            const std::function<Verdict(const SystemCall&)>& judge);
