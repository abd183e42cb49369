#pragma once

#include <string>
#include <vector>

#include "tests/support/RowName.h"

// A shell, and the file that tells it what to offer for a program.
struct Shell : NamedRow {
  const char* configurationLess;  // its option for a start without anybody's settings
  const char* completions;        // in the source tree
};

// What the shell offers at the end of the command line, where it stands in the folder; in its order, behind a tabulator with
// the description where it shows one.
std::vector<std::string> offersOfShell(const Shell& shell, const std::string& line, const std::string& folder);

// The same without descriptions.
std::vector<std::string> withoutDescriptions(std::vector<std::string> offers);
