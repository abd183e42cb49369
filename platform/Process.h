#pragma once

#include <string>
#include <string_view>

namespace platform {

// To be called first, before any file is opened: when descriptor 1 or 2 is closed it is opened on /dev/null, so that a
// line of output can never land in a media file that was given that descriptor. Where that can't be done the process ends
// with status 1. Descriptor 0 is left as it is.
void keepOutputOutOfFiles();

// Every line of standard output is written at once, as one piece.
void makeStandardOutputUnbuffered();

// A reader of the output that went away, or a limit on the size of files, must show as a failed write and not end the process
// between two steps: the signals SIGPIPE and SIGXFSZ are ignored from now on, here and in programs started later.
void letWritesFailInsteadOfSignals();

// Puts the whole process into the best-effort class of disk I/O, at its highest level. Threads started later inherit
// it. Where the system refuses, the process goes on as it was.
void raiseDiskPriority();

// The calling thread, and threads that it starts from now on, stay on the processor that it runs on. For short work whose
// threads wait for one another: to wake a thread on another processor, asleep as a rule, takes longer than what it then has
// to do. On the same one, none is interrupted by another that it woke. Where the system refuses, they go on as they were.
void stayOnThisProcessor();

// From now on an allocation that fails ends the process with status 1 and a line on standard error.
void endProcessWhenMemoryRunsOut();

// Ends the process with the status once all that was queued for output is out. Runs no destructors, since other threads
// may still be at work. The one way out of the process; not to be called on the log queue.
[[noreturn]] void endProcess(int status);

// Ends the process with status 1 and, behind all that was queued for output, a line on standard error that names what could
// not be had.
[[noreturn]] void endProcessForLackOf(std::string_view resource);

// Tells on standard error that what must hold in `function` does not, and aborts. Stays in every build. What was queued
// for output is out before.
[[noreturn]] void assertionFailed(std::string_view expression, std::string_view function);

}  // namespace platform
