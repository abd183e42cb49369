#pragma once

#include "KDXFileTools/kdxoffload/CommandLine.h"
#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"

namespace kdxoffload {

// Says what is proved where: compares the card's listing and those of the destinations with the catalogue, and reads no
// file. The exit status is 0 when everything agrees at every destination asked for (without one: at all that are known
// for this card), else 2; 1 when it can't begin.
int runStatus(const CommandLine& line);

// Says what was offloaded from where to where, when, and how it ended. 0, or 1 when the catalogue can't be read.
int runHistory(const CommandLine& line);

// The same, told to a display and a stream of the caller's. Of a history only errors, and the end for a program, are events.
int tellStatus(const CommandLine& line, Listener& listener);
int tellHistory(const CommandLine& line, OutputStream& results, Listener& listener);

}  // namespace kdxoffload
