#pragma once

#include <functional>
#include <memory>

#include "KDXFileTools/kdxoffload/CommandLine.h"
#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"
#include "platform/Terminal.h"

namespace kdxoffload {

// The descriptors of the streams.
struct DisplayTargets {
  int results = platform::standardOutput;
  int messages = platform::standardError;
};

// The display that the command line and the kind of output ask for: JSON lines, or moving lines for a person where messages
// go to a terminal that can move its cursor, or lines of a log. Results have colours only on a terminal of their own.
// The streams are the caller's, and outlive the display.
std::unique_ptr<Listener> makeDisplay(const CommandLine& line, OutputStream& results, OutputStream& messages,
                                      DisplayTargets targets = {});

// Runs the command with streams to this process's output and the display that the command line asks for, and returns what
// the command returns. At the end readers that do not read are waited for, both together at most 10 s.
int withDisplay(const CommandLine& line, const std::function<int(OutputStream& results, Listener& display)>& command);

}  // namespace kdxoffload
