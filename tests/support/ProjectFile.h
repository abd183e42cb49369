#pragma once

#include <string>

// The path of a file of the project: "docs/output.md".
std::string projectFile(const std::string& name);
