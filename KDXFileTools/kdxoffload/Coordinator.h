#pragma once

#include "KDXFileTools/kdxoffload/CommandLine.h"
#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

// Does the offload that the command line asks for, from the first look at the card to the verdict. The listener gets every
// event; the last one is always `Finished`. Returns the exit status of the process.
//
// Signals: SIGINT, SIGTERM and SIGHUP stop it in order; a second one ends the process at once. SIGUSR1 asks for its state.
int offload(const CommandLine& line, Listener& listener);

// The same with the display that the command line asks for.
int runOffload(const CommandLine& line);

}  // namespace kdxoffload
