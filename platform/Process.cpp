#include "platform/Process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <tuple>

#include "platform/Log.h"

namespace platform {

namespace {

void openOnDevNullIfClosed(int descriptor) {
  if (::fcntl(descriptor, F_GETFD) >= 0) return;
  // Without /dev/null the root does as well: every write to it fails, which is passed over.
  int opened = ::open("/dev/null", O_WRONLY);
  if (opened < 0) opened = ::open("/", O_RDONLY);
  if (opened < 0 || ::dup2(opened, descriptor) < 0) ::_exit(EXIT_FAILURE);
  if (opened != descriptor) ::close(opened);
}

// Output that is already queued is let out, unless the log queue cannot do it: it never ran, or it is the one that
// fails.
void drainLogQueue() {
  if (logQueue().hasStarted() && !logQueue().isCurrentQueue()) logQueue().sync([] {});
}

}  // namespace

void keepOutputOutOfFiles() {
  openOnDevNullIfClosed(STDOUT_FILENO);
  openOnDevNullIfClosed(STDERR_FILENO);
}

void makeStandardOutputUnbuffered() {
  std::ignore = std::setvbuf(stdout, nullptr, _IONBF, 0);
}

void letWritesFailInsteadOfSignals() {
  std::ignore = std::signal(SIGPIPE, SIG_IGN);
  std::ignore = std::signal(SIGXFSZ, SIG_IGN);
}

void endProcessWhenMemoryRunsOut() {
  std::set_new_handler([] {
    // Straight away, without waiting for output that is queued: who asked for memory may hold what the log queue needs.
    writeText(STDERR_FILENO, "kdxdispatchcopy: could not get memory\n");
    ::_exit(EXIT_FAILURE);
  });
}

void raiseDiskPriority() {
  // Fixed numbers of the system's interface. <linux/ioprio.h> has them too, but is no C++ in some versions.
  constexpr int setForProcess = 1;
  constexpr int wholeProcess = 0;
  constexpr int bestEffort = 2;
  constexpr int classShift = 13;
  constexpr int highestLevel = 0;
  std::ignore = ::syscall(SYS_ioprio_set, setForProcess, wholeProcess, bestEffort << classShift | highestLevel);
}

void stayOnThisProcessor() {
  const int processor = ::sched_getcpu();
  if (processor < 0 || processor >= CPU_SETSIZE) return;
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(static_cast<std::size_t>(processor), &only);
  if (::sched_setaffinity(0, sizeof only, &only) != 0) return;
  // A thread that is woken does not interrupt the one that woke it. Another policy than the usual one was chosen by whoever
  // started the process, and is kept.
  const sched_param withoutPriority{};
  if (::sched_getscheduler(0) == SCHED_OTHER) std::ignore = ::sched_setscheduler(0, SCHED_BATCH, &withoutPriority);
}

void endProcess(int status) {
  drainLogQueue();
  ::_exit(status);
}

void endProcessForLackOf(std::string_view resource) {
  drainLogQueue();
  writeText(STDERR_FILENO, fmt::format("kdxdispatchcopy: could not get {}\n", resource));
  ::_exit(EXIT_FAILURE);
}

void assertionFailed(std::string_view expression, std::string_view function) {
  drainLogQueue();
  writeText(STDERR_FILENO, fmt::format("kdxdispatchcopy: assertion failed: {}, in {}\n", expression, function));
  std::abort();
}

}  // namespace platform
