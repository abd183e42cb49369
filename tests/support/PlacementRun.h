#pragma once

#include <optional>
#include <string>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"

// What the phases of a job's placement print when all goes well.
inline constexpr const char* movingLine = "INFO: moving files in place..\n";
inline constexpr const char* flushingLine = "INFO: flushing files\n";
inline constexpr const char* closingLines = "INFO: done.\n\n";

// What a phase gave.
struct Placement {
  bool succeeded = false;
  std::optional<platform::Error> error;
  std::string output;
};

Placement moveInPlace(KDXDispatchCopy& job);
Placement flushed(KDXDispatchCopy& job);

// The line of a file that could not be made permanent.
std::string couldNotSync(const std::string& path);
