#pragma once

#include <string>

#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

// The lines on standard error for an event about the whole offload: what is planned, warnings, errors, and that it is being
// stopped. Each line has its newline. Empty for all other events.
//   quiet   only errors
std::string messageLines(const Event& event, bool quiet);

// How to go on after an offload that a signal stopped: a line with its newline.
std::string howToGoOn();

}  // namespace kdxoffload
