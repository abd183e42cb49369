#pragma once

#include <memory>
#include <optional>

#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "platform/Error.h"

// The job that the command line asks for, configured. If the command line is wrong, prints a line that says why and returns
// null.
std::shared_ptr<KDXDispatchCopy> makeJob(const CommandLine& line);

// Takes the job through its five phases, up to the first that fails, and returns the exit status of the process. A null job
// is a failed assertion.
//   error   the place for the failed phase's error, not null; must live as long as the job is at work
int runJob(const std::shared_ptr<KDXDispatchCopy>& theCopier, platform::ErrorPlace error);

// The exit status for a failed phase: the remainder, with its sign, of the error's code (as a 32-bit number) by 256.
// 1 when that is 0, or when there is no error.
int exitStatusOf(const std::optional<platform::Error>& error);

// Parses, makes the job, runs it and ends the process.
[[noreturn]] void runFrontEnd(int argc, char* const* argv);
