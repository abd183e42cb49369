#pragma once

#include <string>

#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

// The lines on standard error for an event that concerns the whole offload: what is planned, warnings, errors, and that it
// is being stopped. Each with its newline; empty for all other events.
//   quiet   errors alone
std::string messageLines(const Event& event, bool quiet);

// How to go on after an offload that a signal stopped, a line with its newline.
std::string howToGoOn();

}  // namespace kdxoffload
