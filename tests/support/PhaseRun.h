#pragma once

#include <functional>
#include <string>

#include "tests/support/ChildProcess.h"

// The whole standard output of a job's phases, with what was queued. Do not put expectations inside: a failure report goes
// to standard output too.
std::string outputOf(const std::function<void()>& phases);

// The status with which the phases ended the process, or `cameBack` if they returned, and their standard output. Runs them
// in a child process whose standard input is the file. To be called before this process has started a thread; the phases
// make their jobs themselves.
ChildRun endingOf(const std::function<void()>& phases, const std::string& standardInput = "/dev/null");
