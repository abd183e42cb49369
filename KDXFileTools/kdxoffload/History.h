#pragma once

#include <span>
#include <string>

#include "KDXFileTools/kdxoffload/Catalogue.h"

namespace kdxoffload {

// What was offloaded from where to where, when, and how it ended, in the order given: for a person, a few lines for each, at the
// local time; for a program, an object on a line for each, as docs/output.md writes it down.
std::string historyText(std::span<const OffloadRecord> offloads);
std::string historyLines(std::span<const OffloadRecord> offloads);

}  // namespace kdxoffload
