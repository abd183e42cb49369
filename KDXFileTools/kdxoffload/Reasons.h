#pragma once

#include <string>

#include "KDXFileTools/kdxoffload/Plan.h"

namespace kdxoffload {

// Why something is not proved, as a clause that follows a name ("it reads differently ..."), and what to do about it, as a sentence.
//   status   of a job of the first program, of a process that a signal ended, or one of WorkStatus; never 0
std::string reasonForStatus(int status);
std::string adviceForStatus(int status);
// The same of an obstacle that the plan met.
std::string reasonForObstacle(Obstacle obstacle);
std::string adviceForObstacle(Obstacle obstacle);

}  // namespace kdxoffload
