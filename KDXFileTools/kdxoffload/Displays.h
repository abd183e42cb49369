#pragma once

#include <memory>

#include "KDXFileTools/kdxoffload/CommandLine.h"
#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"

namespace kdxoffload {

// The display that the command line and the kind of output ask for: JSON lines, or for a person at a terminal, or for a log.
// The streams are the caller's.
std::unique_ptr<Listener> makeDisplay(const CommandLine& line, OutputStream& results, OutputStream& messages);

}  // namespace kdxoffload
