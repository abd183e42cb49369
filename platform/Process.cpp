#include "platform/Process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/ioprio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "platform/FileDescriptor.h"
#include "platform/Log.h"

namespace platform {

namespace {

void openOnDevNullIfClosed(int descriptor) {
  if (::fcntl(descriptor, F_GETFD) >= 0) return;
  FileDescriptor devNull(::open("/dev/null", O_WRONLY));
  if (devNull.get() == descriptor) {
    // The lowest free descriptor was this very one; it stays open for the life of the process.
    static FileDescriptor kept[2];
    kept[descriptor - 1] = std::move(devNull);
    return;
  }
  std::ignore = ::dup2(devNull.get(), descriptor);
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

void raiseDiskPriority() {
  constexpr int wholeProcess = 0;
  std::ignore = ::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, wholeProcess, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 0));
}

void endProcess(int status) {
  drainLogQueue();
  ::_exit(status);
}

void endProcessForLackOf(std::string_view resource) {
  fmt::print(stderr, "kdxdispatchcopy: could not get {}\n", resource);
  endProcess(EXIT_FAILURE);
}

void assertionFailed(std::string_view expression, std::string_view function) {
  drainLogQueue();
  fmt::print(stderr, "kdxdispatchcopy: assertion failed: {}, in {}\n", expression, function);
  std::abort();
}

}  // namespace platform
