#pragma once

#include "KDXFileTools/kdxoffload/CommandLine.h"

namespace kdxoffload {

// Does what the command line asks for, with all that is shown of it, and returns the exit status of the process.
int runOffload(const CommandLine& line);

}  // namespace kdxoffload
