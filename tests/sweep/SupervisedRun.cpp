#include "tests/sweep/SupervisedRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <span>
#include <system_error>
#include <utility>

#include "platform/FileDescriptor.h"
#include "tests/support/ChildProcess.h"
#include "tests/sweep/SystemCalls.h"

using platform::FileDescriptor;

namespace {

// A usual run makes some hundred calls.
constexpr std::size_t mostCalls = 100'000;
// Milliseconds. Only a guard against runs that would never end; no good run comes near it.
constexpr int longestSilence = 60'000;

// From now on the calls that the program (in the kernel's filter language) selects wait for the holder of the returned
// descriptor. -1 if this fails.
int installListener(std::span<sock_filter> program) {
  const sock_fprog filter{.len = static_cast<unsigned short>(program.size()), .filter = program.data()};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
  return static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

// From now on every call of this process waits for a verdict, except futex, and the call that sends the descriptor to the
// supervisor.
int listenToAll() {
  std::array program{
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 2, 0),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendmsg, 1, 0),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  return installListener(program);
}

int listenToNone() {
  std::array program{sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  return installListener(program);
}

// A message of one byte that carries a descriptor.
struct DescriptorMessage {
  char byte = 'd';
  iovec data{.iov_base = &byte, .iov_len = 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};

  DescriptorMessage() {
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
  }
  DescriptorMessage(const DescriptorMessage&) = delete;
  DescriptorMessage& operator=(const DescriptorMessage&) = delete;
};

// In the child. All memory is allocated and set up first: after the listener is installed, only the one call is free.
void handOverListener(int socket) {
  const rlimit none{.rlim_cur = 0, .rlim_max = 0};
  ::setrlimit(RLIMIT_CORE, &none);
  DescriptorMessage message;
  cmsghdr* const part = CMSG_FIRSTHDR(&message.header);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof(int));
  const int listener = listenToAll();
  std::memcpy(CMSG_DATA(part), &listener, sizeof listener);
  ::sendmsg(socket, &message.header, 0);
}

FileDescriptor receiveListener(int socket) {
  DescriptorMessage message;
  int listener = -1;
  const bool received = ::recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC) == 1;
  const cmsghdr* const part = CMSG_FIRSTHDR(&message.header);
  if (received && part != nullptr) std::memcpy(&listener, CMSG_DATA(part), sizeof listener);
  EXPECT_GE(listener, 0) << "the started process can't be supervised";
  return FileDescriptor(listener);
}

std::string processFile(uint32_t thread, const std::string& name) {
  return "/proc/" + std::to_string(thread) + "/" + name;
}

std::string pathOfDescriptor(uint32_t thread, int descriptor) {
  std::error_code none;
  return std::filesystem::read_symlink(processFile(thread, "fd/" + std::to_string(descriptor)), none);
}

// The path at this address in the memory of the thread's process.
std::string pathAt(uint32_t thread, uint64_t address) {
  const FileDescriptor memory(::open(processFile(thread, "mem").c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, PATH_MAX> text{};
  const ssize_t length = ::pread(memory.get(), text.data(), text.size() - 1, static_cast<off_t>(address));
  return length > 0 ? std::string(text.data()) : std::string();
}

std::string nameOfThread(uint32_t thread) {
  std::ifstream file(processFile(thread, "comm"));
  std::string name;
  std::getline(file, name);
  return name;
}

std::string placeOfDescriptor(uint32_t thread, uint64_t argument) {
  const int descriptor = static_cast<int>(argument);
  if (descriptor == STDOUT_FILENO) return "output";
  if (descriptor == STDERR_FILENO) return "errors";
  return pathOfDescriptor(thread, descriptor);
}

std::string placeOf(const CallKind& kind, const seccomp_notif& request) {
  const std::span arguments(request.data.args);
  switch (kind.concerns) {
    case Concerns::descriptor:
      return placeOfDescriptor(request.pid, arguments[0]);
    case Concerns::path:
      return pathAt(request.pid, arguments[0]);
    case Concerns::pathBelow: {
      std::string path = pathAt(request.pid, arguments[1]);
      return path.empty() ? placeOfDescriptor(request.pid, arguments[0]) : path;
    }
    case Concerns::thread:
      break;
  }
  return nameOfThread(request.pid);
}

class Supervisor {
 public:
  Supervisor(std::string root, const std::function<Verdict(const SystemCall&)>& judge)
      : _root(std::move(root)), _judge(judge) {}

  // Returns when the process has ended.
  void supervise(pid_t process, const FileDescriptor& listener) {
    const FileDescriptor end(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    for (;;) {
      std::array<pollfd, 2> events{pollfd{.fd = listener.get(), .events = POLLIN, .revents = 0},
                                   pollfd{.fd = end.get(), .events = POLLIN, .revents = 0}};
      if (::poll(events.data(), events.size(), longestSilence) == 0 || _calls.size() > mostCalls) {
        _endless = true;
        ::kill(process, SIGKILL);
        return;
      }
      if ((events[0].revents & POLLIN) != 0) {
        answer(process, listener.get());
      } else if (events[0].revents != 0 || events[1].revents != 0) {
        return;
      }
    }
  }

  std::vector<SystemCall> takeCalls() { return std::move(_calls); }
  [[nodiscard]] bool endless() const { return _endless; }

 private:
  void answer(pid_t process, int listener) {
    seccomp_notif request{};
    // Fails if the thread was killed meanwhile.
    if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) return;
    const Verdict verdict = verdictOn(request);
    if (request.data.nr == SYS_brk && verdict.error == 0 && request.data.args[0] != 0)
      _endOfHeap = request.data.args[0];
    if (verdict.kill) {
      ::kill(process, SIGKILL);
      return;
    }
    seccomp_notif_resp response{};
    response.id = request.id;
    if (verdict.error == 0) {
      response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    } else if (request.data.nr == SYS_brk) {
      // brk never returns an error. Its failure is an end of the heap that has not moved.
      response.val = static_cast<int64_t>(_endOfHeap);
    } else {
      response.error = -verdict.error;
    }
    ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
  }

  Verdict verdictOn(const seccomp_notif& request) {
    const CallKind kind = kindOfCall(request.data.nr);
    // main first checks the standard descriptors (fcntl), which the loader never does.
    _inMain = _inMain || request.data.nr == SYS_fcntl;
    if (!_inMain) return {};
    SystemCall call{.name = kind.name, .where = placeOf(kind, request)};
    call.isBelowRoot = call.where.starts_with(_root + "/");
    if (call.isBelowRoot) call.where.erase(0, _root.size() + 1);
    call.occurrence = ++_counts[{call.name, call.where}];
    const Verdict verdict = _judge(call);
    call.error = verdict.error;
    _calls.push_back(std::move(call));
    return verdict;
  }

  const std::string _root;
  const std::function<Verdict(const SystemCall&)>& _judge;
  bool _inMain = false;
  uint64_t _endOfHeap = 0;  // as last requested by the loader or the tool
  std::map<std::pair<std::string, std::string>, std::size_t> _counts;
  std::vector<SystemCall> _calls;
  bool _endless = false;
};

}  // namespace

bool canSupervise(std::string& whyNot) {
  if (isSanitized()) {
    whyNot = "a sanitizer makes system calls of its own, and ends the process when they fail";
    return false;
  }
  whyNot = "this system lets no process supervise the calls of another";
  return statusOfChild([] {
           if (listenToNone() < 0) ::_exit(EXIT_FAILURE);
         }) == cameBack;
}

SupervisedRun runSupervised(ToolStart start, const std::string& root,
                            const std::function<Verdict(const SystemCall&)>& judge) {
  std::array<int, 2> sockets{-1, -1};
  EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()));
  const FileDescriptor ours(sockets[0]);
  FileDescriptor theirs(sockets[1]);
  Supervisor supervisor(root, judge);
  start.inChild = [&] { handOverListener(theirs.get()); };
  start.meanwhile = [&](pid_t process) {
    theirs.close();
    supervisor.supervise(process, receiveListener(ours.get()));
  };
  SupervisedRun supervised;
  supervised.run = runTool(start);
  supervised.calls = supervisor.takeCalls();
  supervised.endless = supervisor.endless();
  return supervised;
}
