#pragma once

#include <functional>
#include <optional>
#include <string>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "tests/support/ChildProcess.h"

// What the last two phases print when all goes well.
inline constexpr const char* movingLine = "INFO: moving files in place..\n";
inline constexpr const char* flushingLine = "INFO: flushing files\n";
inline constexpr const char* closingLines = "INFO: done.\n\n";

// Standard output of a job's phases, whole, with what was queued. Expectations stand outside: a failure report goes to
// standard output too.
std::string outputOf(const std::function<void()>& phases);

// What one phase gave, with a place for its error.
struct PhaseRun {
  bool succeeded = false;
  std::optional<platform::Error> error;
  std::string output;
};

PhaseRun runPhase(const std::function<bool(platform::ErrorPlace)>& phase);
PhaseRun copied(KDXDispatchCopy& job);
PhaseRun moveInPlace(KDXDispatchCopy& job);
PhaseRun flushed(KDXDispatchCopy& job);

// The line of a file that could not be made permanent.
std::string couldNotSync(const std::string& path);

// How phases that end the process ended it, and their standard output; the status is `cameBack` when they returned
// instead. Runs them in a child process whose standard input is the file. To be called before this process has started
// a thread: jobs are made inside.
ChildRun endingOf(const std::function<void()>& phases, const std::string& standardInput = "/dev/null");
