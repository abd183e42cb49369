#pragma once

#include <memory>

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"

namespace kdxoffload {

// What a display depends on besides its streams.
struct DisplayChoice {
  bool json = false;
  bool quiet = false;
  int resultsDescriptor = 1;
  int messagesDescriptor = 2;
};

// The display for whoever is there: JSON lines where they are wanted, moving lines where messages go to a terminal that can
// move its cursor, else lines of a log. The streams are the caller's, and outlive the display.
std::unique_ptr<Listener> makeDisplay(OutputStream& results, OutputStream& messages, DisplayChoice choice);

}  // namespace kdxoffload
