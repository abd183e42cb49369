#pragma once

#include <memory>
#include <optional>

#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "platform/Error.h"

// The job that the command line asks for, configured; null after the line that says what is wrong with the command
// line.
std::shared_ptr<KDXDispatchCopy> makeJob(const CommandLine& line);

// Drives the job through its five phases, up to the first that fails, and returns the exit status of the process. Without
// a job it is a failed assertion.
//   error   the place for the failed phase's error, not null; must live as long as the job is at work
int runJob(const std::shared_ptr<KDXDispatchCopy>& theCopier, platform::ErrorPlace error);

// The exit status for a failed phase: the error's code, as a 32-bit number, remainder 256 (with its sign); 1 when that
// is 0 or there is no error.
int exitStatusOf(const std::optional<platform::Error>& error);

// Parses, makes the job, runs it and ends the process.
[[noreturn]] void runFrontEnd(int argc, char* const* argv);
