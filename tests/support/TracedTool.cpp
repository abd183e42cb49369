#include "tests/support/TracedTool.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "tests/support/ScratchDirectory.h"

namespace {

constexpr int systemCallStop = SIGTRAP | 0x80;

// What the kernel wants instead of a pointer.
void* asPointer(long value) {
  return reinterpret_cast<void*>(value);  // NOLINT(performance-no-int-to-ptr)
}

void goOn(pid_t thread, int signal) {
  // Fails if the thread was killed meanwhile. Its end is still reported.
  ::ptrace(PTRACE_SYSCALL, thread, nullptr, asPointer(signal));
}

class Tracer {
 public:
  Tracer(pid_t process, const std::set<long>& numbers, const AtCall& atCall)
      : _process(process), _numbers(numbers), _atCall(atCall) {}

  // Returns the status of the process at its end.
  int runToItsEnd() {
    int status = 0;
    // The stop at the beginning of the program.
    if (::waitpid(_process, &status, 0) != _process || !WIFSTOPPED(status)) return status;
    constexpr long options =
        PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_EXITKILL;
    EXPECT_EQ(0, ::ptrace(PTRACE_SETOPTIONS, _process, nullptr, asPointer(options)));
    goOn(_process, 0);
    for (;;) {
      const pid_t thread = ::waitpid(-1, &status, __WALL);
      if (thread < 0) return status;
      if (!WIFSTOPPED(status)) {
        if (thread == _process) return status;
        continue;
      }
      goOn(thread, signalFor(thread, status));
    }
  }

 private:
  // The signal with which the stopped thread goes on.
  int signalFor(pid_t thread, int status) {
    const int signal = WSTOPSIG(status);
    if (signal == systemCallStop) return atSystemCall(thread);
    const bool isOfTheTracer = status >> 16 != 0;  // a new thread
    const bool isNew = signal == SIGSTOP && _known.insert(thread).second;
    return isOfTheTracer || isNew ? 0 : signal;
  }

  int atSystemCall(pid_t thread) {
    __ptrace_syscall_info info = {};
    if (::ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), thread, asPointer(sizeof info), &info) < 0) {
      return 0;
    }
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      const auto number = static_cast<long>(info.entry.nr);
      if (!_numbers.contains(number)) return 0;
      const StoppedCall call{.number = number, .occurrence = ++_occurrences[number], .isOver = false};
      _underWay.insert_or_assign(thread, call);
      return give(_atCall(call));
    }
    const auto found = _underWay.find(thread);
    if (found == _underWay.end()) return 0;
    StoppedCall call = found->second;
    _underWay.erase(found);
    call.isOver = true;
    return give(_atCall(call));
  }

  // Sent with kill: a signal that is passed when the thread goes on from a system call would be lost.
  int give(int signal) const {
    if (signal != 0) ::kill(_process, signal);
    return 0;
  }

  pid_t _process;
  const std::set<long>& _numbers;
  const AtCall& _atCall;
  std::map<long, uint64_t> _occurrences;
  std::map<pid_t, StoppedCall> _underWay;
  std::set<pid_t> _known;
};

}  // namespace

ToolRun runTool(const ToolStart& start, const std::set<long>& numbers, const AtCall& atCall) {
  const ScratchDirectory scratch;
  const pid_t child = ::fork();
  if (child == 0) {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    becomeTool(start, scratch);
  }
  return endedTool(Tracer(child, numbers, atCall).runToItsEnd(), scratch);
}

bool canStopTheTool() {
  if (isSanitized()) return false;
  const pid_t child = ::fork();
  if (child == 0) ::_exit(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
