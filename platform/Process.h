#pragma once

#include <string>
#include <string_view>

namespace platform {

// To be called first, before any file is opened. If descriptor 1 or 2 is closed, opens it on /dev/null, so that no line of
// output can land in a media file that got this number. If this fails, the process ends with status 1. Descriptor 0 is left
// as it is.
void keepOutputOutOfFiles();

// Every line of standard output is written at once, as one piece.
void makeStandardOutputUnbuffered();

// From now on the signals SIGPIPE and SIGXFSZ are ignored, here and in programs started later. A reader of the output that went
// away, or a limit on the size of files, then gives a failed write, and does not end the process between two steps.
void letWritesFailInsteadOfSignals();

// Puts the whole process into the best-effort class of disk I/O, at its highest level. Threads started later inherit it. If
// the system refuses, nothing changes.
void raiseDiskPriority();

// Keeps the calling thread, and threads that it starts from now on, on the current processor. This is for short work whose
// threads wait for one another: waking a thread on another processor, which is mostly asleep, takes longer than its work. A
// thread that is woken on the same processor does not interrupt the thread that woke it. If the system refuses, nothing
// changes.
void stayOnThisProcessor();

// From now on an allocation that fails ends the process with status 1 and a line on standard error.
void endProcessWhenMemoryRunsOut();

// Ends the process with the status, after everything queued for output has been printed. Runs no destructors, because other
// threads may still be at work. The normal way out of the process. Not to be called on the log queue.
[[noreturn]] void endProcess(int status);

// Ends the process with status 1. After everything queued for output, prints a line on standard error that names the missing
// resource.
[[noreturn]] void endProcessForLackOf(std::string_view resource);

// After everything queued for output, prints on standard error that `expression` does not hold in `function`, and aborts.
// Works in every build.
[[noreturn]] void assertionFailed(std::string_view expression, std::string_view function);

}  // namespace platform
