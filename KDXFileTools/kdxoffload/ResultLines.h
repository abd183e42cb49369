#pragma once

#include <string>

#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

struct ResultLook {
  bool quiet = false;    // nothing but failures and the verdict
  bool colours = false;  // of the verdict; for a terminal alone
};

// What standard output holds at the end, for a person: each file that is not proved with its reason and what to do, what changed
// meanwhile, what else is to be known, and last the verdict. Each line with its newline.
std::string resultLines(const Verdict& verdict, ResultLook look);

}  // namespace kdxoffload
