#pragma once

#include <span>
#include <string>

#include "KDXFileTools/kdxoffload/Catalogue.h"

namespace kdxoffload {

// What was offloaded from where to where, when, and how it ended, in the order given. For a person: a few lines for each
// offload, with local times. For a program: one object on a line for each offload, as docs/output.md describes it.
std::string historyText(std::span<const OffloadRecord> offloads);
std::string historyLines(std::span<const OffloadRecord> offloads);

}  // namespace kdxoffload
