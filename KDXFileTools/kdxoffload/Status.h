#pragma once

#include <span>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"
#include "KDXFileTools/kdxoffload/Plan.h"
#include "KDXFileTools/kdxoffload/Verdict.h"

namespace kdxoffload {

// What an offload would find proved already, without reading a file: every file of the card by the catalogue and by what stands
// at the destinations, folders and links by what stands there. The exit status is 0 or 2; safe is what an offload that has
// nothing left to do would call safe.
//   destinations   as for a plan
//   paths          theirs, as they are to be shown
Verdict statusOf(const Listing& card, std::span<const PlannedDestination> destinations,
                 const std::vector<std::string>& paths);

}  // namespace kdxoffload
