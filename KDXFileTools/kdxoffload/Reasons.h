#pragma once

#include <string>

#include "KDXFileTools/kdxoffload/Plan.h"

namespace kdxoffload {

// Why something is not proved, as a clause that follows a name ("it reads differently ..."), and what to do, as a sentence.
//   status   of a job of the first program, of a process that a signal ended, or one of WorkStatus; not 0
std::string reasonForStatus(int status);
std::string adviceForStatus(int status);
// The same for an obstacle in the plan.
std::string reasonForObstacle(Obstacle obstacle);
std::string adviceForObstacle(Obstacle obstacle);

}  // namespace kdxoffload
