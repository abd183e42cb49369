#pragma once

#include <span>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"
#include "KDXFileTools/kdxoffload/Plan.h"
#include "KDXFileTools/kdxoffload/Verdict.h"

namespace kdxoffload {

// What an offload would find proved already, without reading a file: files of the card by the catalogue and by what stands at
// the destinations, folders and links by what stands there. The exit status is 0 or 2. It is safe if an offload would have
// nothing to do and call the card safe.
//   destinations   as for a plan
//   paths          of the destinations, as they are shown
Verdict statusOf(const Listing& card, std::span<const PlannedDestination> destinations,
                 const std::vector<std::string>& paths);

}  // namespace kdxoffload
