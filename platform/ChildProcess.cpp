#include "platform/ChildProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <utility>

namespace platform {

namespace {

constexpr int firstFreeDescriptor = 5;

struct Pipe {
  FileDescriptor read;
  FileDescriptor write;
};

// Both ends get numbers above those that the child uses, so that dup2 in the child overwrites none of them too early.
std::optional<Pipe> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  Pipe made{.read = FileDescriptor(ends[0]), .write = FileDescriptor(ends[1])};
  for (FileDescriptor* end : {&made.read, &made.write}) {
    if (end->get() >= firstFreeDescriptor) continue;
    *end = FileDescriptor(::fcntl(end->get(), F_DUPFD_CLOEXEC, firstFreeDescriptor));
    if (!end->isOpen()) return std::nullopt;
  }
  return made;
}

void makeNonblocking(const FileDescriptor& descriptor) {
  ::fcntl(descriptor.get(), F_SETFL, ::fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
}

// What the child does between fork and exec, with calls that are allowed there.
[[noreturn]] void becomeProgram(const std::array<int, firstFreeDescriptor>& descriptors,
                                const std::vector<int>& inherited, const char* program, char* const* arguments,
                                pid_t parent) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(EXIT_FAILURE);
  // The copies stay open in the program; their numbers do not matter.
  for (const int descriptor : inherited) ::fcntl(descriptor, F_DUPFD, firstFreeDescriptor);
  for (int number = 0; number < firstFreeDescriptor; ++number) {
    if (::dup2(descriptors[static_cast<std::size_t>(number)], number) < 0) ::_exit(EXIT_FAILURE);
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
  ::execv(program, arguments);
  ::_exit(EXIT_FAILURE);
}

std::vector<char*> argumentsOf(std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  return pointers;
}

int exitStatusFrom(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A descriptor that becomes readable when the process has ended.
FileDescriptor watchProcess(pid_t process) {
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

}  // namespace

std::optional<ChildProcess> ChildProcess::start(const std::string& program, const std::vector<std::string>& arguments,
                                                const std::vector<int>& inherited, ErrorPlace error) {
  std::optional<Pipe> orders = makePipe();
  std::optional<Pipe> results = makePipe();
  std::optional<Pipe> output = makePipe();
  std::optional<Pipe> errors = makePipe();
  const FileDescriptor nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!orders || !results || !output || !errors || !nothing.isOpen()) {
    fail(error, posixError("pipe", "", errno));
    return std::nullopt;
  }
  const std::array<int, firstFreeDescriptor> descriptors{nothing.get(), output->write.get(), errors->write.get(),
                                                         orders->read.get(), results->write.get()};
  std::vector<std::string> words = arguments;
  const std::vector<char*> pointers = argumentsOf(words);
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) becomeProgram(descriptors, inherited, program.c_str(), pointers.data(), parent);
  if (child < 0) {
    fail(error, posixError("fork", "", errno));
    return std::nullopt;
  }
  ChildProcess started;
  started._id = child;
  started.orders = std::move(orders->write);
  started.results = std::move(results->read);
  started.output = std::move(output->read);
  started.errors = std::move(errors->read);
  started.ended = watchProcess(child);
  for (const FileDescriptor* end : {&started.orders, &started.results, &started.output, &started.errors}) {
    makeNonblocking(*end);
  }
  if (started.ended.isOpen()) return started;
  fail(error, posixError("pidfd_open", "", errno));
  return std::nullopt;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : orders(std::move(other.orders)),
      results(std::move(other.results)),
      output(std::move(other.output)),
      errors(std::move(other.errors)),
      ended(std::move(other.ended)),
      _id(std::exchange(other._id, -1)),
      _exitStatus(other._exitStatus) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  orders = std::move(other.orders);
  results = std::move(other.results);
  output = std::move(other.output);
  errors = std::move(other.errors);
  ended = std::move(other.ended);
  std::swap(_id, other._id);
  std::swap(_exitStatus, other._exitStatus);
  return *this;
}

ChildProcess::~ChildProcess() {
  // A child that can't end now, because it is inside a system call, is left to the system, without waiting.
  kill();
  exitStatus();
}

std::optional<int> ChildProcess::exitStatus() {
  if (_id < 0 || _exitStatus) return _exitStatus;
  int status = 0;
  if (::waitpid(_id, &status, WNOHANG) == _id) _exitStatus = exitStatusFrom(status);
  return _exitStatus;
}

void ChildProcess::kill() {
  if (_id > 0 && !exitStatus()) ::kill(_id, SIGKILL);
}

void ChildProcess::terminate() {
  if (_id > 0 && !exitStatus()) ::kill(_id, SIGTERM);
}

std::optional<uint64_t> ChildProcess::activity() const {
  std::ifstream counters(fmt::format("/proc/{}/io", _id));
  std::string name;
  uint64_t value = 0;
  uint64_t sum = 0;
  bool isKnown = false;
  while (counters >> name >> value) {
    sum += value;
    isKnown = true;
  }
  return isKnown ? std::optional(sum) : std::nullopt;
}

}  // namespace platform
