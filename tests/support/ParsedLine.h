#pragma once

#include <string>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"

// Parses a command line of these words, after the tool's name.
CommandLine parsedLine(std::vector<std::string> words);
