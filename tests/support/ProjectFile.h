#pragma once

#include <string>

// The path of a file that the project delivers beside the program: "docs/output.md".
std::string projectFile(const std::string& name);
