#pragma once

#include <functional>
#include <string>

#include "tests/support/ChildProcess.h"

// Standard output of a job's phases, whole, with what was queued. Expectations stand outside: a failure report goes to
// standard output too.
std::string outputOf(const std::function<void()>& phases);

// How phases that end the process ended it, and their standard output; the status is `cameBack` when they returned
// instead. Runs them in a child process whose standard input is the file. To be called before this process has started
// a thread: jobs are made inside.
ChildRun endingOf(const std::function<void()>& phases, const std::string& standardInput = "/dev/null");
