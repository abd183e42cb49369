#pragma once

#include <string>
#include <vector>

#include "tests/support/RowName.h"

// A shell, and the file that defines its completions for a program.
struct Shell : NamedRow {
  const char* configurationLess;  // the option to start it without the user's settings
  const char* completions;        // in the source tree
};

// What the shell, in this folder, offers at the end of the command line, in its order. If the shell shows a description, the
// offer ends with a tab and the description.
std::vector<std::string> offersOfShell(const Shell& shell, const std::string& line, const std::string& folder);

// The offers without descriptions.
std::vector<std::string> withoutDescriptions(std::vector<std::string> offers);
