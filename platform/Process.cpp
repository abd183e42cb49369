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
  // Without /dev/null the root directory will do: writes to it fail, and failed writes of output are ignored.
  int opened = ::open("/dev/null", O_WRONLY);
  if (opened < 0) opened = ::open("/", O_RDONLY);
  if (opened < 0 || ::dup2(opened, descriptor) < 0) ::_exit(EXIT_FAILURE);
  if (opened != descriptor) ::close(opened);
}

// Prints the output that is already queued, unless the log queue can't: it has never run, or this is called on it.
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
    // At once, without waiting for queued output: the thread that asked for memory may hold a lock that the log queue needs.
    writeText(STDERR_FILENO, "kdxdispatchcopy: could not get memory\n");
    ::_exit(EXIT_FAILURE);
  });
}

void raiseDiskPriority() {
  // Fixed numbers of the system's interface. <linux/ioprio.h> has them too, but some versions of it are not valid C++.
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
  // With this policy a thread that is woken does not interrupt the thread that woke it. If the policy is not the usual one, the
  // user has chosen it, and it stays.
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
