#pragma once

#include <optional>
#include <string>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"

// What moveFilesInPlace and flushFilesystem print when all goes well.
inline constexpr const char* movingLine = "INFO: moving files in place..\n";
inline constexpr const char* flushingLine = "INFO: flushing files\n";
inline constexpr const char* closingLines = "INFO: done.\n\n";

// The result of a phase.
struct Placement {
  bool succeeded = false;
  std::optional<platform::Error> error;
  std::string output;
};

Placement moveInPlace(KDXDispatchCopy& job);
Placement flushed(KDXDispatchCopy& job);

// The line for a file that could not be made permanent.
std::string couldNotSync(const std::string& path);
