#pragma once

#include <string>

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/RunningJobs.h"

namespace kdxoffload {

// "45 s", "12 min", "3 h 05 min": coarse enough to read while it counts down. Below a second it is "0 s".
std::string shownDuration(double seconds);

// "45 %": rounded down, so that "100 %" means everything.
std::string shownShare(double share);

// "2 failures", "1 failure", "no failures".
std::string shownFailures(uint64_t failures);

// The state of everything in one line, without a newline. What is not known is left out.
std::string stateLine(const Progress& progress);

// The same and a line for each running job, each with a newline.
std::string stateReport(const Progress& progress, const RunningJobs& running);

}  // namespace kdxoffload
