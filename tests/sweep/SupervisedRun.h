#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/ToolRun.h"

// A system call that the tool is about to make. Some calls are let through and not reported: those before main, which are the
// dynamic loader's; and waiting for another thread (futex), whose number varies, which can't fail and touches no file.
struct SystemCall {
  std::string name;
  // The path of the file, relative to the root if it is below; "output" and "errors" for the standard descriptors. The name
  // of the thread for a call that concerns no file.
  std::string where;
  bool isBelowRoot = false;
  std::size_t occurrence =
      1;          // counted from 1 over all calls of this name at this place, so that it is the same in every run
  int error = 0;  // that the verdict made it fail with; 0: it was let through
};

// What happens to the call.
struct Verdict {
  int error = 0;      // not 0: the call is not made and fails with it
  bool kill = false;  // the process is killed before it makes the call
};

struct SupervisedRun {
  ToolRun run;
  std::vector<SystemCall> calls;  // in the order in which they were judged
  bool endless = false;           // it was killed because it made calls without end, or no more calls
};

// True if a process may supervise the calls of another one here. Otherwise `whyNot` has the reason, for a visible skip.
bool canSupervise(std::string& whyNot);

// Runs the tool and judges all of its calls, one after the other, on the calling thread. Any number of threads may do so at
// the same time. Uses the system's own supervision of calls (seccomp) instead of strace: strace counts the calls of every
// thread by itself, beginning with the loader's, so the first calls of a worker thread could never be reached.
SupervisedRun runSupervised(ToolStart start, const std::string& root,
                            const std::function<Verdict(const SystemCall&)>& judge);
