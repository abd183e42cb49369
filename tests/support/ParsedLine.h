#pragma once

#include <string>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"

// What the tool takes from a command line of these words; its own name is put in front.
CommandLine parsedLine(std::vector<std::string> words);
