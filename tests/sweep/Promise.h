#pragma once

#include <string>
#include <vector>

#include "tests/sweep/Offload.h"
#include "tests/sweep/SupervisedRun.h"

using Complaints = std::vector<std::string>;

// What is broken of the promise that holds whatever happened: the card and every
// file that was not to be replaced are as they were, and what stands under a final name is a complete copy or the file
// that stood there. Such a file may be gone only once the proved copy that takes its place is there.
Complaints brokenByFiles(const Offload& offload);

// The same, and what is broken of the promise that the ended run gives by its status: 0 only when every copy is complete
// under its final name and was made permanent, data first, then the name; otherwise the status and the final names that
// the README tells. It ends by itself, and by no signal but that of an assertion that says which.
Complaints brokenByRun(const Offload& offload, const SupervisedRun& run);

// True when a final name is taken.
bool isFinalNameTaken(const Offload& offload);
