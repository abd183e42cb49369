#pragma once

#include <string>
#include <string_view>

namespace platform {

// To be called first, before any file is opened: when descriptor 1 or 2 is closed it is opened on /dev/null, so that a
// line of output can never land in a media file that was given that descriptor. Descriptor 0 is left as it is.
void keepOutputOutOfFiles();

// Every line of standard output is written at once, as one piece.
void makeStandardOutputUnbuffered();

// Puts the whole process into the best-effort class of disk I/O, at its highest level. Threads started later inherit
// it. Where the system refuses, the process goes on as it was.
void raiseDiskPriority();

// Ends the process with the status once all that was queued for output is out. Runs no destructors, since other threads
// may still be at work. The one way out of the process; not to be called on the log queue.
[[noreturn]] void endProcess(int status);

// Ends the process with status 1 and a line on standard error that names what could not be had.
[[noreturn]] void endProcessForLackOf(std::string_view resource);

// Tells on standard error that what must hold in `function` does not, and aborts. Stays in every build. What was queued
// for output is out before.
[[noreturn]] void assertionFailed(std::string_view expression, std::string_view function);

}  // namespace platform
