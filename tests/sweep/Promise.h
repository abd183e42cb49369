#pragma once

#include <string>
#include <vector>

#include "tests/sweep/Offload.h"
#include "tests/sweep/SupervisedRun.h"

using Complaints = std::vector<std::string>;

// How the files break the promise that holds whatever happens: the card, and every file that was not to be replaced, are as
// they were; and under a final name there is a complete copy or the file that was there before. That file may be gone only
// when the verified copy that replaces it exists.
Complaints brokenByFiles(const Offload& offload);

// The same, and how the run breaks the promise of its status. 0: every copy is complete under its final name and was made
// permanent, first the data, then the name. Otherwise: the final names that README.md lists for the status. The run must end
// by itself; the only signal allowed is that of an assertion that says what failed.
Complaints brokenByRun(const Offload& offload, const SupervisedRun& run);

// True when a final name is taken.
bool isFinalNameTaken(const Offload& offload);
