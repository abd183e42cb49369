#pragma once

#include <string>

#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

struct ResultLook {
  bool quiet = false;    // only failures and the verdict
  bool colours = false;  // of the verdict; only for a terminal
};

// The end of standard output, for a person: each file that is not proved, with the reason and what to do; what changed
// meanwhile; remarks; and last the verdict. Each line with its newline.
std::string resultLines(const Verdict& verdict, ResultLook look);

}  // namespace kdxoffload
